#!/usr/bin/env bash
# tevd on real kernel links (root): a scratch network namespace with a Linux
# bridge ksw0 whose uplinks are the veth ends hwnic0 and hwnic1. tevnet
# watches it over netlink and posts to a tevd under a private root. One
# uplink's cable (its veth peer) is pulled and put back, then both: the
# management agent's stand-in shows redundancy lost and restored, then
# connectivity lost and restored. Nothing outside the namespace is touched.
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" = 0 ] || { echo "demo/linux.sh: needs root (ip netns add)" >&2; exit 1; }
cmake -S . -B build-demo -DTEVD_BUILD_TESTS=OFF >/dev/null
cmake --build build-demo -j2 --target tevd tevctl tevnet >/dev/null
bin=$PWD/build-demo
root=$(mktemp -d /tmp/tevd-linux.XXXXXX)
ns=tevd-demo-$$
export TEVD_ROOT=$root PATH=$bin/tools/tevctl:$PATH
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  ip netns del "$ns" 2>/dev/null || true
  echo; echo "== tevnet"; cat "$root/tevnet.err" 2>/dev/null || true
  echo; echo "== events received by the management agent stand-in (tevctl sink), root left at $root"
  cat "$root/events.jsonl" 2>/dev/null || true
}
trap cleanup EXIT
trap 'exit 130' INT TERM

ip netns add "$ns"
ip -n "$ns" link add ksw0 type bridge && ip -n "$ns" link set ksw0 up
for i in 0 1; do
  ip -n "$ns" link add hwnic$i type veth peer name lnk$i
  ip -n "$ns" link set hwnic$i master ksw0 && ip -n "$ns" link set hwnic$i up && ip -n "$ns" link set lnk$i up
done
tevctl host init >/dev/null
tevctl host portgroup "pg-guests" ksw0 && tevctl host portgroup "pg-mgmt" ksw0
tevctl sink >"$root/events.jsonl" & pids+=($!)
"$bin/apps/tevd/tevd" >"$root/tevd.out" 2>&1 & pids+=($!)
sleep 0.5
ip netns exec "$ns" "$bin/tools/tevnet/tevnet" --include 'hwnic*' 2>"$root/tevnet.err" & pids+=($!)
sleep 0.5
step() { echo "-- $1"; shift; for c in "$@"; do ip -n "$ns" link set $c; done; sleep 3.5; }
step "lnk1 down: redundancy lost on ksw0" "lnk1 down"
step "lnk1 up: redundancy restored" "lnk1 up"
step "both down: redundancy lost (hwnic0), connectivity lost (hwnic1)" "lnk0 down" "lnk1 down"
step "both up: connectivity and redundancy restored" "lnk0 up" "lnk1 up"
