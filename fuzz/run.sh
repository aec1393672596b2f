#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) straight from the
# platform sources and the daemon's argument-format reader, then runs each
# target for a bounded time from its seed corpus.
#   fuzz/run.sh [SECONDS]     build, then run every target SECONDS (default 20)
#   fuzz/run.sh --seeds       rewrite fuzz/corpus/ with the encoders
#   FUZZ_TARGETS="record qprob" FUZZ_BUILD=dir fuzz/run.sh 60
# New inputs and any crash land in $FUZZ_BUILD/work/<target>/, never in the
# committed corpus. Exit status is non-zero when a target fails.
set -euo pipefail
cd "$(dirname "$0")/.."
CXX=${FUZZ_CXX:-clang++}
BUILD=${FUZZ_BUILD:-build-fuzz}
TARGETS=${FUZZ_TARGETS:-"record getargs tevdutil msgfmt qprob readfd"}
[ -n "${FUZZ_CXX:-}" ] || scripts/deps.sh fuzz

if ! command -v "$CXX" >/dev/null 2>&1; then
  echo "fuzz/run.sh: $CXX not found (install clang and libclang-rt-14-dev)" >&2
  exit 2
fi

mkdir -p "$BUILD/obj"
FLAGS=(-std=c++17 -g -O1 -fno-omit-frame-pointer -fsanitize=address,undefined
       -fno-sanitize-recover=undefined -Iplatform/include -Iplatform/src -Iapps/tevd)

compile() {   # source object extra-flags...
  local src=$1 obj=$2
  shift 2
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ fuzz/run.sh -nt "$obj" ] ||
     [ -n "$(find platform/include platform/src apps/tevd/tevdUtil.h apps/tevd/tevdLog.h fuzz/FuzzCommon.h -newer "$obj" -print -quit)" ]; then
    "$CXX" "${FLAGS[@]}" "$@" -c "$src" -o "$obj"
  fi
}

# Library objects: coverage-instrumented, two compilers at a time.
LIBOBJS=()
pids=()
for src in platform/src/*.cpp apps/tevd/tevdUtil.cpp apps/tevd/tevdLog.cpp; do
  obj="$BUILD/obj/$(basename "${src%.cpp}").o"
  LIBOBJS+=("$obj")
  compile "$src" "$obj" -fsanitize=fuzzer-no-link &
  pids+=($!)
  if [ "${#pids[@]}" -ge 2 ]; then wait "${pids[0]}"; pids=("${pids[@]:1}"); fi
done
for p in "${pids[@]}"; do wait "$p"; done

if [ "${1:-}" = "--seeds" ]; then
  "$CXX" "${FLAGS[@]}" fuzz/make_seeds.cpp "${LIBOBJS[@]}" -lpthread -o "$BUILD/make_seeds"
  rm -rf fuzz/corpus
  TEVD_ROOT="$BUILD" "$BUILD/make_seeds" fuzz/corpus
  find fuzz/corpus -type f | sort
  exit 0
fi

SECONDS_EACH=${1:-20}
status=0
for t in $TARGETS; do
  "$CXX" "${FLAGS[@]}" -fsanitize=fuzzer "fuzz/fuzz_$t.cpp" "${LIBOBJS[@]}" -lpthread \
    -o "$BUILD/fuzz_$t"
  work="$BUILD/work/$t"
  mkdir -p "$work/corpus" "$work/root"
  echo "== fuzz_$t: ${SECONDS_EACH}s"
  # A private root keeps the platform's log lines and sockets out of the host.
  if ! TEVD_ROOT="$work/root" \
      UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
      "$BUILD/fuzz_$t" -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=2048 \
        -max_len=140000 -print_final_stats=1 -artifact_prefix="$work/" \
        "$work/corpus" "fuzz/corpus/$t" >"$work/log" 2>&1; then
    echo "fuzz_$t FAILED; last lines of $work/log:" >&2
    tail -n 40 "$work/log" >&2
    status=1
  else
    grep -E '^stat::(number_of_executed_units|peak_rss_mb)' "$work/log" || true
  fi
done
exit $status
