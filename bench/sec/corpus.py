#!/usr/bin/env python3
"""Writes the comparison corpus, one observation a line: "TIMESTAMP ID ARG...".
   corpus.py N NICS DOWNS_PER_NIC DUPLICATES > corpus.txt
Mix: DUPLICATES tev.net.mtlnic.ip.duplicate (each posts), NICS x DOWNS_PER_NIC
tev.net.hwnic.linkstate.down spread over the run, and the rest split between
the five clock identifiers the SetValue handler takes (the first of each posts,
the repeats are suppressed) and log-only noise (tev.cpu.thermal.throttle) that
no rule takes. Interleaved deterministically."""
import sys

n, nics, downs, dups = (int(a) for a in sys.argv[1:5])
special = ["dup"] * dups + ["down"] * (nics * downs)
rest = n - len(special)
assert rest > 0
clock_ids = ["tev.clock.state.reset"] + [
    "tev.clock.parameter.set." + p
    for p in ("maxNegPhaseCorrection", "maxPosPhaseCorrection", "numLargeCorrections", "maxLargeCorrections")]
step = n / len(special)
slots = {int(i * step): kind for i, kind in enumerate(special)}
out = sys.stdout
d = k = c = z = 0
for i in range(n):
    ts = 1700000000000000 + i
    kind = slots.get(i)
    if kind == "dup":
        out.write(f"{ts} tev.net.mtlnic.ip.duplicate 10.0.{d // 250}.{d % 250} mtlnic{d % 4} owner-{d}\n")
        d += 1
    elif kind == "down":
        out.write(f"{ts} tev.net.hwnic.linkstate.down hwnic{k % nics}\n")
        k += 1
    elif i % 2:
        cid = clock_ids[c % 5]
        arg = "" if cid.endswith("reset") else f" {c}"
        out.write(f"{ts} {cid}{arg}\n")
        c += 1
    else:
        out.write(f"{ts} tev.cpu.thermal.throttle {z % 64} 90\n")
        z += 1
