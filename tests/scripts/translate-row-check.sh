#!/bin/sh
# The translation tables' compile-time check: the good table builds, and each
# deliberately wrong row fails at the table's static_assert.
#   translate-row-check.sh CXX SOURCE_DIR CHECK_FILE
set -u
cxx=$1 src=$2 file=$3
compile() {
  "$cxx" -std=c++17 -fsyntax-only -Werror -I"$src/apps/tevd" -I"$src/apps/tevd/events" \
    -I"$src/platform/include" "$file" "$@"
}
compile -DTEVD_BAD_ROW=0 || exit 1
for n in 1 2 3 4 5 6; do
  if out=$(compile -DTEVD_BAD_ROW=$n 2>&1); then
    echo "row $n built"
    exit 1
  fi
  echo "$out" | grep -q 'translation row does not fit its template' || { echo "row $n: $out"; exit 1; }
done
echo 'good table built, 6 wrong rows refused'
