#!/usr/bin/env bash
# Builds and runs every test. With "asan" or "tsan", the same suite under
# AddressSanitizer+UndefinedBehaviorSanitizer or ThreadSanitizer. With "tsa",
# builds the programs with clang's thread-safety analysis as errors (the
# locking annotations of TevMutex.h) and runs nothing. Installs
# the packages it needs first (scripts/deps.sh). Tests that cannot run here
# (no root, a package missing) are listed at the end; with
# TEVD_REQUIRE_ALL_TESTS=1, as in CI, they fail instead.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh daemon tests companions
variant="${1:-}"
dir=build
flags=()
case "$variant" in
  "") ;;
  asan) dir=build-asan; flags=(-DTEVD_SANITIZE=asan -DCMAKE_BUILD_TYPE=Debug) ;;
  tsan) dir=build-tsan; flags=(-DTEVD_SANITIZE=tsan -DCMAKE_BUILD_TYPE=Debug) ;;
  tsa)
    scripts/deps.sh fuzz  # clang
    cmake -S . -B build-tsa -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS="-Wthread-safety" \
      -DTEVD_BUILD_TESTS=OFF -DTEVD_BUILD_MAN=OFF >/dev/null
    exec cmake --build build-tsa -j2 ;;
  *) echo "usage: $0 [asan|tsan|tsa]" >&2; exit 2 ;;
esac
cmake -S . -B "$dir" -DTEVD_BUILD_TESTS=ON "${flags[@]}" >/dev/null
cmake --build "$dir" -j2
export ASAN_OPTIONS=detect_leaks=0:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# Agents that end early (the logger by design) are joined only at shutdown,
# and the self-test ends the process from an agent: not leaks worth a report.
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 report_thread_leaks=0"
export TEVD_SKIP_LOG=$PWD/$dir/skipped.txt
: >"$TEVD_SKIP_LOG"
rc=0
ctest --test-dir "$dir" --output-on-failure --no-tests=error -j2 --timeout 600 || rc=$?
if [ -s "$TEVD_SKIP_LOG" ]; then
  echo "== $(wc -l <"$TEVD_SKIP_LOG") test case(s) skipped, each with its reason:"
  sed 's/^/   /' "$TEVD_SKIP_LOG"
fi
exit "$rc"
