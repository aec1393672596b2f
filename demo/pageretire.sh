#!/usr/bin/env bash
# Page retirement scenario: the kernel keeps injecting uncorrectable memory
# errors (machine checks) into the guest page 0x1f2a of virtual machine
# "web01" (world id 4242), because its operating system keeps touching the
# page. At the 50th injection into that page, spread over more than two
# seconds, the "pageretire" correlator posts
# "kos.problem.pageretire.mce.injected.2" and kills the virtual machine; the
# host model shows the kill in platform/vms/4242/killed. Injections after
# that change nothing: a virtual machine is killed once.
# Expects a running tevd under TEVD_ROOT and tevctl on PATH (demo/run.sh sets
# both up); on its own:
#   TEVD_ROOT=/path/to/root PATH=build/tools/tevctl:$PATH bash demo/pageretire.sh
set -euo pipefail
: "${TEVD_ROOT:?set TEVD_ROOT to the root of a running tevd}"

world=4242
page=0x1f2a
killed="$TEVD_ROOT/platform/vms/$world/killed"

tevctl host vm "$world" web01
rm -f "$killed"

echo "   kernel: 50 x tev.pageretire.mce.injected (PPN $page, world $world) over ~3 s"
echo "           -> expect one kos.problem.pageretire.mce.injected.2 and web01 killed"
for i in $(seq 50); do
  tevctl post tev.pageretire.mce.injected 'Injected MCE for PPN %x into virtual machine %d.' \
    "$page" "$world"
  # The kill needs the page's injections to span at least 2 s (whole
  # seconds); 50 x 60 ms keeps the run comfortably above that.
  sleep 0.06
  if [ "$i" -eq 49 ] && [ -e "$killed" ]; then
    echo "   unexpected: web01 was killed before the 50th injection" >&2
    exit 1
  fi
done

for _ in $(seq 40); do [ -e "$killed" ] && break; sleep 0.05; done
if [ -e "$killed" ]; then
  echo "   host model: platform/vms/$world/killed = $(cat "$killed") (web01 killed)"
else
  echo "   web01 was not killed" >&2
  exit 1
fi

echo "   kernel: 5 more injections -> expect nothing more (killed once)"
rm -f "$killed"
for _ in $(seq 5); do
  tevctl post tev.pageretire.mce.injected 'Injected MCE for PPN %x into virtual machine %d.' \
    "$page" "$world"
done
sleep 0.3
if [ -e "$killed" ]; then
  echo "   unexpected: web01 was killed twice" >&2
  exit 1
fi
