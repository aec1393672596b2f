#!/usr/bin/env bash
# Storage scenario: device naa.600a0b80 has three paths and holds the
# datastores "ds1" (partitions 1 and 3) and "ds2" (partition 2); partition 0
# is the whole disk and never listed. The path hba1:C0:T0:L1 goes dead
# while it was "on"; the host reports the device degraded (status 3), so the
# "scsi" correlator posts kos.problem.storage.redundancy.degraded with the
# affected datastores "ds1", "ds2". When the path comes back the clear
# kos.clear.storage.redundancy.restored follows. Then the device loses its
# last path (status 1): kos.problem.storage.connectivity.lost; and the
# kernel reports all paths down for it (kos.problem.storage.apd.start).
# Expects a running tevd under TEVD_ROOT and tevctl on PATH (demo/run.sh sets
# both up); on its own:
#   TEVD_ROOT=/path/to/root PATH=build/tools/tevctl:$PATH bash demo/storage.sh
set -euo pipefail
: "${TEVD_ROOT:?set TEVD_ROOT to the root of a running tevd}"

dev=naa.600a0b80
p1=hba1:C0:T0:L1
p2=hba2:C0:T0:L1
p3=hba3:C0:T0:L1

mkdir -p "$TEVD_ROOT/kfs/volumes"
tevctl host path "$p1" "$dev"
tevctl host path "$p2" "$dev"
tevctl host path "$p3" "$dev"
tevctl host device "$dev" 3 0=whole 1=ds1 2=ds2 3=ds1

echo "   kernel: path $p1 on -> dead, device $dev degraded (status 3)"
echo "           -> expect kos.problem.storage.redundancy.degraded, datastores \"ds1\", \"ds2\""
tevctl post tev.scsi.scsipath.pathstate.dead 'Path %s changed state from %s' "$p1" on
sleep 0.3

echo "   kernel: path $p1 dead -> on -> expect kos.clear.storage.redundancy.restored"
tevctl post tev.scsi.scsipath.pathstate.on 'Path %s changed state from %s' "$p1" dead
sleep 0.3

echo "   kernel: last path $p3 on -> dead, no path left (status 1)"
echo "           -> expect kos.problem.storage.connectivity.lost"
tevctl host set "storage/devices/$dev/status" 1
tevctl post tev.scsi.scsipath.pathstate.dead 'Path %s changed state from %s' "$p3" on
tevctl post tev.storage.apd.start 'Device %s has entered the All Paths Down state.' "$dev"
sleep 0.3
