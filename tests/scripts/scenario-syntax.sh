#!/bin/sh
# A scenario file with syntax errors: each is named with its line, nothing
# is run, status 2.
#   scenario-syntax.sh TEVCTL TEVD DIR      (DIR holds syntax-error.scn)
set -u
out=$("$1" scenario run --tevd "$2" "$3/syntax-error.scn" 2>&1)
rc=$?
echo "$out"
[ $rc -eq 2 ] || exit 1
for want in 'syntax-error.scn:3: expected a window A..B' \
    'syntax-error.scn:4: unknown identifier "user.host.boot"' \
    'syntax-error.scn:5: format .* takes 2 argument(s), 1 given' 'nothing was run'; do
  echo "$out" | grep -q "$want" || exit 1
done
! echo "$out" | grep -q '^scenario '
