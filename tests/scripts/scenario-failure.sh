#!/bin/sh
# The runner's own failure reports: a failing expectation and a daemon that
# crashes before it is ready fail their scenarios (status 1) and say so.
#   scenario-failure.sh TEVCTL TEVD DIR     (DIR holds failing.scn, crash.scn)
set -u
out=$("$1" scenario run --tevd "$2" "$3/failing.scn" "$3/crash.scn" 2>&1)
rc=$?
echo "$out"
[ $rc -eq 1 ] || exit 1
for want in 'PASS  line 4:' 'FAIL  line 5:' 'FAIL  line 6:' \
    'ERROR tevd ended before it was ready: signal 6' 'tevd stderr:' '0 of 2 scenarios passed'; do
  echo "$out" | grep -q "$want" || exit 1
done
