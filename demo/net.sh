#!/usr/bin/env bash
# Network scenario, played against a running tevd.
#
# 1. vmnic1 serves the port groups "VM Network" and "Management Network" of
#    vSwitch0, each teamed with one other uplink. vmnic1 loses its link: the
#    kernel reports both port groups down with 1 active uplink left, then the
#    bare link-down. After the 2-second settling time the "net" correlator
#    posts one kos.problem.net.redundancy.lost naming vSwitch0, vmnic1 and
#    "VM Network", "Management Network" (the bare link-down is covered by it).
#    When the link returns (2 active uplinks again) the clear
#    kos.clear.net.redundancy.restored follows, again after 2 seconds.
# 2. vmnic3 flaps: with LinkFlappingThreshold set to 3, the fourth link-down
#    within 60 seconds makes the daemon take the NIC down (it writes 1 to
#    platform/nodes/net/pNics/vmnic3/linkFlapping) and post
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

tevctl host portgroup "VM Network" vSwitch0
tevctl host portgroup "Management Network" vSwitch0
tevctl host nic vmnic1
tevctl host nic vmnic3

echo "   kernel: vmnic1 link lost; port groups \"VM Network\", \"Management Network\" keep 1 uplink"
echo "           -> expect kos.problem.net.redundancy.lost on vSwitch0 after 2 s"
pg_down vmnic1 "VM Network" 1
pg_down vmnic1 "Management Network" 1
link down vmnic1
sleep 3

echo "   kernel: vmnic1 link back; both port groups have 2 uplinks again"
echo "           -> expect kos.clear.net.redundancy.restored on vSwitch0 after 2 s"
pg_up vmnic1 "VM Network" 2
pg_up vmnic1 "Management Network" 2
link up vmnic1
sleep 3

echo "   kernel: vmnic3 link goes down 4 times within seconds (LinkFlappingThreshold 3)"
echo "           -> expect kos.problem.net.hwnic.linkstate.flapping for vmnic3"
old=$(tevctl host get options/Net/LinkFlappingThreshold 2>/dev/null || echo 10)
tevctl host set options/Net/LinkFlappingThreshold 3
for _ in 1 2 3 4; do
  link down vmnic3
  sleep 0.2
  link up vmnic3
  sleep 0.2
done
sleep 2
echo "   host: platform/nodes/net/pNics/vmnic3/linkFlapping = $(tevctl host get nodes/net/pNics/vmnic3/linkFlapping 2>/dev/null || echo '(not written)')"
tevctl host set options/Net/LinkFlappingThreshold "$old"
