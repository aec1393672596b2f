#!/usr/bin/env bash
# Builds tevd and tevctl, starts the daemon on an emulated host under a
# private root, plays the small scenarios of demo/*.sh and shows what went in
# (the daemon's log) and what came out (events as the management agent's
# stand-in decodes them). Then plays a few scenarios of scenarios/ with
# `tevctl scenario run`, each against a fresh daemon, whose reports show every
# expectation PASS or FAIL and the timeline. Stops by itself; Ctrl-C stops it
# cleanly too. DEMO_SCENARIOS="a.scn b.scn" picks other scenarios ("" none).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh daemon
cmake -S . -B build-demo -DTEVD_BUILD_TESTS=OFF -DTEVD_BUILD_COMPANIONS=OFF -DTEVD_BUILD_MAN=OFF >/dev/null
cmake --build build-demo -j2 --target tevd tevctl >/dev/null
bin=$PWD/build-demo
root=$(mktemp -d /tmp/tevd-demo.XXXXXX)
export TEVD_ROOT=$root PATH=$bin/tools/tevctl:$PATH
pids=()
cleanup() {
  [ -n "${tevd_pid:-}" ] && kill -TERM "$tevd_pid" 2>/dev/null && wait "$tevd_pid" 2>/dev/null || true
  sleep 0.2
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  echo; echo "== events received by the management agent stand-in (tevctl sink)"
  cat "$root/events.jsonl" 2>/dev/null || true
  echo; echo "== the daemon's log (tevctl log), root left at $root"
  sed -e 's/^<14>[A-Z][a-z][a-z] [ 0-9][0-9] [0-9:]* //' "$root/tevd.log" 2>/dev/null || true
}
trap cleanup EXIT
trap 'exit 130' INT TERM

tevctl host init >/dev/null
tevctl log >"$root/tevd.log" & pids+=($!)
tevctl sink >"$root/events.jsonl" & pids+=($!)
sleep 0.3
"$bin/apps/tevd/tevd" & tevd_pid=$!
for _ in $(seq 100); do [ -S "$root/var/run/orlan/tevd-user.sock" ] && break; sleep 0.05; done
sleep 0.3
echo "== tevd running (pid $tevd_pid) under $root"
for scenario in demo/user.sh demo/net.sh demo/storage.sh demo/pageretire.sh; do
  if [ -f "$scenario" ]; then
    echo "-- playing $scenario"
    bash "$scenario" || echo "   ($scenario failed: $?)"
  fi
done
sleep "${DEMO_LINGER:-3}"
cleanup
trap - EXIT

scenarios=${DEMO_SCENARIOS-scenarios/user-audits.scn scenarios/net-redundancy.scn scenarios/storage-path-dead.scn}
if [ -n "$scenarios" ]; then
  echo; echo "== scenarios played by tevctl scenario run (docs/scenarios.md)"
  # shellcheck disable=SC2086
  tevctl scenario run --tevd "$bin/apps/tevd/tevd" $scenarios || echo "   (some scenario failed: $?)"
fi
