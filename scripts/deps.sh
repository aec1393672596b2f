#!/usr/bin/env bash
# The one list of the Debian packages the project needs, grouped by what
# needs them, and the step that installs the missing ones before anything is
# configured. Every script that builds something calls it first:
#   scripts/deps.sh GROUP...      install what GROUP... lack (as root), or
#                                 print the one command that does and fail
#   scripts/deps.sh --list GROUP...   print the packages, one a line
# A newcomer on a fresh Debian or Ubuntu machine should meet this script's one
# line, never a CMake error about a missing library.
set -euo pipefail

packages() {
  case "$1" in
    # The daemon and tevctl: a compiler, CMake, and libsystemd for the
    # service manager's notifications (TEVD_WITH_SYSTEMD, on by default).
    daemon) echo cmake g++ make pkg-config libsystemd-dev ;;
    # The suite: GoogleTest, libfaketime for the sped-up retry pass, ip for
    # tevnet's namespace tests, scdoc and gzip for the manual pages every
    # full build makes.
    tests) echo libgtest-dev faketime iproute2 scdoc gzip ;;
    # tevnet (netlink), tevfwd (HTTP and JSON), and the Alertmanager its
    # end-to-end tests run for real; promtool (prometheus) and node_exporter's
    # textfile collector, which the metrics tests check and scrape with.
    companions) echo libnl-3-dev libnl-route-3-dev libcurl4-openssl-dev nlohmann-json3-dev \
                     prometheus-alertmanager prometheus prometheus-node-exporter ;;
    # packaging/check.sh: the package, its manual pages, its units.
    package) echo dpkg-dev fakeroot lintian scdoc gzip man-db groff-base systemd ;;
    # scripts/lint.sh, format.sh, funclen.py and fuzz/run.sh: clang's tools,
    # Python and libFuzzer's runtime.
    lint) echo clang-tidy clang-format python3 ;;
    fuzz) echo clang libclang-rt-14-dev ;;
    # bench/: Google Benchmark, callgrind, and the comparison's rule engine.
    bench) echo libbenchmark-dev valgrind python3 sec ;;
    *) echo "deps.sh: unknown group '$1' (daemon tests companions package lint fuzz bench)" >&2
       return 2 ;;
  esac
}

list=0
if [ "${1:-}" = --list ]; then list=1; shift; fi
[ "$#" -gt 0 ] || { echo "usage: scripts/deps.sh [--list] GROUP..." >&2; exit 2; }
want=()
for group in "$@"; do
  names=$(packages "$group") || exit 2
  read -r -a pkgs <<<"$names"
  want+=("${pkgs[@]}")
done
# Each package once, in the order first named.
mapfile -t want < <(printf '%s\n' "${want[@]}" | awk '!seen[$0]++')
if [ "$list" = 1 ]; then printf '%s\n' "${want[@]}"; exit 0; fi

if ! command -v dpkg-query >/dev/null 2>&1; then
  echo "deps.sh: not a Debian system; make sure these (Debian names) are installed: ${want[*]}" >&2
  exit 0
fi
missing=()
for pkg in "${want[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$pkg" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$pkg")
done
[ "${#missing[@]}" -eq 0 ] && exit 0

why=$(IFS=,; echo "$*" | sed 's/,/, /g')
if [ "$(id -u)" -ne 0 ]; then
  echo "deps.sh: packages needed for $why are missing. Install them with:" >&2
  echo "  sudo apt-get update && sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
echo "deps.sh: installing for $why: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Another install may hold dpkg's lock for a while (an unattended upgrade).
lock=(-o DPkg::Lock::Timeout=300)
# apt's own chatter is shown only when it fails.
out=$(mktemp)
trap 'rm -f "$out"' EXIT
if ! { apt-get "${lock[@]}" update -qq &&
       apt-get "${lock[@]}" install -y -qq --no-install-recommends "${missing[@]}"; } >"$out" 2>&1; then
  cat "$out" >&2
  echo "deps.sh: apt-get install failed for: ${missing[*]}" >&2
  exit 1
fi
