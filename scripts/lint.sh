#!/usr/bin/env bash
# Runs clang-tidy with a small set of checks over the product code (apps/,
# platform/, tools/) using the build's compile_commands.json. Exits non-zero
# on any finding.
#   scripts/lint.sh [BUILD_DIR] [FILE...]     (BUILD_DIR defaults to build-lint)
set -euo pipefail
cd "$(dirname "$0")/.."
dir="${1:-build-lint}"
[ "$#" -gt 0 ] && shift
scripts/deps.sh daemon companions lint
if [ ! -f "$dir/compile_commands.json" ]; then
  # Configuring writes the version header, the one generated file the
  # sources include (the event catalogue is a source file).
  cmake -S . -B "$dir" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
fi
# The checks, and why some of their families are left out:
#  - bugprone-easily-swappable-parameters: flags every function with two
#    neighbouring parameters of one type (a C-style API's norm); no finding
#    it made here was a mix-up.
#  - bugprone-implicit-widening-of-multiplication-result: flags constant
#    sizes such as `constexpr size_t k = 64 * 1024`, which cannot overflow.
#  - bugprone-misplaced-widening-cast: flags casts of sums of small
#    non-negative ints (a log line's header and text lengths) to size_t.
#  - bugprone-narrowing-conversions: the wire and record formats convert
#    between fixed-width integers on purpose, everywhere.
#  - bugprone-branch-clone: switches over the argument types keep one case
#    per type on purpose, even where two print alike.
#  - performance-inefficient-string-concatenation: "a" + b + "c" builds a
#    diagnostic once per bad line; clarity wins there.
#  - performance-no-int-to-ptr: a descriptor travels as a thread's void *
#    argument by design (pthread_create takes nothing else).
checks='-*'
checks+=',bugprone-*'
checks+=',-bugprone-easily-swappable-parameters'
checks+=',-bugprone-implicit-widening-of-multiplication-result'
checks+=',-bugprone-misplaced-widening-cast'
checks+=',-bugprone-narrowing-conversions'
checks+=',-bugprone-branch-clone'
checks+=',performance-*'
checks+=',-performance-inefficient-string-concatenation'
checks+=',-performance-no-int-to-ptr'

files=("$@")
if [ "${#files[@]}" -eq 0 ]; then
  mapfile -t files < <(git ls-files -- apps platform tools | grep -E '\.cpp$')
fi
jobs="${LINT_JOBS:-2}"
out=$(mktemp)
trap 'rm -f "$out"' EXIT
printf '%s\n' "${files[@]}" |
  xargs -P "$jobs" -n 4 clang-tidy -p "$dir" --quiet --checks="$checks" --warnings-as-errors='*' \
    >"$out" 2>/dev/null || true
if grep -qE '(warning|error): ' "$out"; then
  grep -E '(warning|error): ' "$out" | sort -u
  echo "lint.sh: clang-tidy found the problems above" >&2
  exit 1
fi
echo "lint.sh: ${#files[@]} files clean"
