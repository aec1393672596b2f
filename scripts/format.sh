#!/usr/bin/env bash
# Formats the C++ sources with the repository's .clang-format.
#   scripts/format.sh            rewrite the files in place
#   scripts/format.sh --check    list the files that would change; exit 1 if any
# Extra arguments name files or folders to limit it to.
set -euo pipefail
cd "$(dirname "$0")/.."
check=0
if [ "${1:-}" = "--check" ]; then
  check=1
  shift
fi
command -v clang-format >/dev/null 2>&1 || { echo "format.sh: clang-format not found" >&2; exit 2; }
paths=("$@")
[ "${#paths[@]}" -gt 0 ] || paths=(apps platform tools tests bench fuzz)
mapfile -t files < <(git ls-files -- "${paths[@]}" | grep -E '\.(cpp|cc|h|hpp)$')
[ "${#files[@]}" -gt 0 ] || { echo "format.sh: no C++ files under ${paths[*]}" >&2; exit 2; }
if [ "$check" -eq 0 ]; then
  clang-format -i --style=file "${files[@]}"
  exit 0
fi
bad=0
for f in "${files[@]}"; do
  if ! clang-format --style=file --dry-run --Werror "$f" >/dev/null 2>&1; then
    echo "$f"
    bad=1
  fi
done
exit "$bad"
