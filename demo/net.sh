#!/usr/bin/env bash
# Network scenario, played against a running tevd. (The same from real
# kernel links, with tevnet in a network namespace: demo/linux.sh.)
#
# 1. hwnic1 serves the port groups "pg-guests" and "pg-mgmt" of
#    ksw0, each teamed with one other uplink. hwnic1 loses its link: the
#    kernel reports both port groups down with 1 active uplink left, then the
#    bare link-down. After the 2-second settling time the "net" correlator
#    posts one kos.problem.net.redundancy.lost naming ksw0, hwnic1 and
#    "pg-guests", "pg-mgmt" (the bare link-down is covered by it).
#    When the link returns (2 active uplinks again) the clear
#    kos.clear.net.redundancy.restored follows, again after 2 seconds.
# 2. hwnic3 flaps: with LinkFlappingThreshold set to 3, the fourth link-down
#    within 60 seconds makes the daemon take the NIC down (it writes 1 to
#    platform/nodes/net/pNics/hwnic3/linkFlapping) and post
#    kos.problem.net.hwnic.linkstate.flapping. The bare link-state reports
#    (kos.problem.net.hwnic.linkstate.down / kos.clear...up) come 1 s after
#    each settles.
# Expects a running tevd under TEVD_ROOT and tevctl on PATH (demo/run.sh sets
# both up); on its own:
#   TEVD_ROOT=/path/to/root PATH=build/tools/tevctl:$PATH bash demo/net.sh
set -euo pipefail
: "${TEVD_ROOT:?set TEVD_ROOT to the root of a running tevd}"

pg_down() {  # NIC PORTGROUP ACTIVE-UPLINKS
  tevctl post tev.net.pg.uplink.transition.down \
    'Uplink %s of port group %s is down, %d active uplinks left (%d)' "$1" "$2" "$3" 0
}
pg_up() {    # NIC PORTGROUP ACTIVE-UPLINKS
  tevctl post tev.net.pg.uplink.transition.up \
    'Uplink %s of port group %s is up, %d active uplinks' "$1" "$2" "$3"
}
link() {     # down|up NIC
  tevctl post "tev.net.hwnic.linkstate.$1" "Physical NIC %s linkstate is $1" "$2"
}

tevctl host portgroup "pg-guests" ksw0
tevctl host portgroup "pg-mgmt" ksw0
tevctl host nic hwnic1
tevctl host nic hwnic3

echo "   kernel: hwnic1 link lost; port groups \"pg-guests\", \"pg-mgmt\" keep 1 uplink"
echo "           -> expect kos.problem.net.redundancy.lost on ksw0 after 2 s"
pg_down hwnic1 "pg-guests" 1
pg_down hwnic1 "pg-mgmt" 1
link down hwnic1
sleep 3

echo "   kernel: hwnic1 link back; both port groups have 2 uplinks again"
echo "           -> expect kos.clear.net.redundancy.restored on ksw0 after 2 s"
pg_up hwnic1 "pg-guests" 2
pg_up hwnic1 "pg-mgmt" 2
link up hwnic1
sleep 3

echo "   kernel: hwnic3 link goes down 4 times within seconds (LinkFlappingThreshold 3)"
echo "           -> expect kos.problem.net.hwnic.linkstate.flapping for hwnic3"
old=$(tevctl host get options/Net/LinkFlappingThreshold 2>/dev/null || echo 10)
tevctl host set options/Net/LinkFlappingThreshold 3
for _ in 1 2 3 4; do
  link down hwnic3
  sleep 0.2
  link up hwnic3
  sleep 0.2
done
sleep 2
echo "   host: platform/nodes/net/pNics/hwnic3/linkFlapping = $(tevctl host get nodes/net/pNics/hwnic3/linkFlapping 2>/dev/null || echo '(not written)')"
tevctl host set options/Net/LinkFlappingThreshold "$old"
