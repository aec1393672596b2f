#!/usr/bin/env bash
# A soak of the three programs under mixed load (docs/reliability.md):
# floods on several contexts, link churn in a network namespace (tevnet),
# an Alertmanager replica going up and down (tevfwd), a trace client that
# never reads, and the log collector stopped and continued. Samples each
# program's VmRSS and open descriptors every SAMPLE seconds and prints the
# first and last sample, the drop counters and whether all three are alive.
#
#   sudo DURATION=600 bench/soak.sh          # needs root (the namespace)
#   BUILD=build-asan DURATION=120 bench/soak.sh
set -uo pipefail
cd "$(dirname "$0")/.."
BUILD=${BUILD:-build}
DURATION=${DURATION:-600}
SAMPLE=${SAMPLE:-10}
AM=${AM:-/usr/bin/prometheus-alertmanager}
tevd=${TEVD:-$BUILD/apps/tevd/tevd} tevctl=$BUILD/tools/tevctl/tevctl
tevfwd=$BUILD/tools/tevfwd/tevfwd tevnet=$BUILD/tools/tevnet/tevnet
for b in "$tevd" "$tevctl" "$tevfwd" "$tevnet" "$AM"; do
  [ -x "$b" ] || { echo "soak: $b is missing" >&2; exit 2; }
done
export TEVD_ROOT=$(mktemp -d /tmp/tevd-soak.XXXXXX)
ns=tevd-soak$$
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
  wait 2>/dev/null
  ip netns del "$ns" 2>/dev/null
}
trap cleanup EXIT
"$tevctl" host init >/dev/null
mkdir -p "$TEVD_ROOT/dev"

# The log collector: counts lines and the daemon's own drop reports.
python3 - "$TEVD_ROOT/dev/log" <<'EOF' &
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(sys.argv[1])
s.settimeout(1.0)
n = dropped = disconnected = 0
while True:
    try:
        d = s.recv(1 << 20).decode(errors="replace")
        n += 1
        if " log lines dropped" in d:
            dropped += int(d.split(": ")[-1].split()[0])
        if "disconnected: more than" in d:
            disconnected += 1
        if n % 500:
            continue
    except socket.timeout:
        pass
    with open(sys.argv[1] + ".count", "w") as f:
        f.write(f"lines {n} reported-dropped {dropped} trace-disconnects {disconnected}\n")
EOF
collector=$!; pids+=($collector)
sleep 0.3

port=$((20000 + $$ % 20000))
printf 'route:\n  receiver: none\nreceivers:\n- name: none\n' >"$TEVD_ROOT/am.yml"
am_up() {
  "$AM" --config.file="$TEVD_ROOT/am.yml" \
    --storage.path="$TEVD_ROOT/am" --web.listen-address=127.0.0.1:$port \
    --cluster.listen-address= --log.level=error >/dev/null 2>&1 &
  am=$!
}
am_up
# The trace client that never reads (below) holds what is queued for it
# until it passes the pending limit and is cut off: 16 MiB by default, more
# than a 10-minute soak produces, so that its memory would look like growth.
# A 2 MiB limit is reached within minutes and the ceiling shows.
TEVD_TRACE_PENDING_MAX=${TRACE_PENDING_MAX:-2097152} "$tevd" 2>"$TEVD_ROOT/tevd.err" &
tevdpid=$!; pids+=($tevdpid)
sleep 1
"$tevfwd" --alertmanager http://127.0.0.1:$port --resend 5 2>"$TEVD_ROOT/tevfwd.err" &
fwdpid=$!; pids+=($fwdpid)

ip netns add "$ns"
ipn() { ip -n "$ns" "$@"; }
ipn link add ksw0 type bridge && ipn link set ksw0 up
for i in 0 1; do
  ipn link add hwnic$i type veth peer name lnk$i
  ipn link set hwnic$i master ksw0 && ipn link set hwnic$i up && ipn link set lnk$i up
done
ip netns exec "$ns" "$tevnet" --include 'hwnic*' 2>"$TEVD_ROOT/tevnet.err" & netpid=$!
pids+=($netpid)
sleep 1

# A trace client that connects and never reads.
python3 -c "
import socket, sys, time
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
s.connect('$TEVD_ROOT/var/run/orlan/tevd-trace.sock')
time.sleep(10**6)" & pids+=($!)

end=$((SECONDS + DURATION))
# Floods on four contexts and the user-level one. The events repeat 64
# arguments: each distinct one is an alert that fires for a day, and a
# forwarder asked to keep an ever-growing active set grows with it.
for ctx in "--domain 1" "--domain 5" "--domain 9" "--user"; do
  (while [ $SECONDS -lt $end ]; do
     "$tevctl" post $ctx tev.vm.fault "flood %d" $RANDOM >/dev/null 2>&1
     "$tevctl" post $ctx tev.user.test.test2 "two %d %s" $((RANDOM % 64)) x >/dev/null 2>&1
   done) & pids+=($!)
done
# Link churn.
(while [ $SECONDS -lt $end ]; do
   ipn link set lnk1 down; sleep 0.7; ipn link set lnk1 up; sleep 1.3
 done) & pids+=($!)

sample() {  # pid -> "rss_kb fds"
  echo "$(awk '/VmRSS/{print $2}' /proc/$1/status 2>/dev/null || echo -) $(ls /proc/$1/fd 2>/dev/null | wc -l)"
}
echo "t tevd(rss fds) tevfwd(rss fds) tevnet(rss fds)" >"$TEVD_ROOT/samples"
t=0
while [ $SECONDS -lt $end ]; do
  echo "$t $(sample $tevdpid) $(sample $fwdpid) $(sample $netpid)" >>"$TEVD_ROOT/samples"
  case $(( (t / 30) % 2 )) in
    0) kill -CONT $collector ;;
    1) [ $(( t % 30 )) -lt $SAMPLE ] && kill -STOP $collector ;;
  esac
  if [ $(( t % 40 )) -eq 20 ]; then kill $am 2>/dev/null; wait $am 2>/dev/null; fi
  if [ $(( t % 40 )) -eq 0 ] && ! kill -0 $am 2>/dev/null; then am_up; fi
  sleep "$SAMPLE"; t=$((t + SAMPLE))
done
kill -CONT $collector
echo "$t $(sample $tevdpid) $(sample $fwdpid) $(sample $netpid)" >>"$TEVD_ROOT/samples"
alive=""
for p in $tevdpid $fwdpid $netpid; do kill -0 $p 2>/dev/null && alive+="yes " || alive+="NO "; done
echo "soak of ${DURATION}s under $TEVD_ROOT; alive (tevd tevfwd tevnet): $alive"
# The first sample, the one halfway and the last: flat is the second half.
n=$(wc -l <"$TEVD_ROOT/samples")
sed -n "1,2p;$(( (n + 2) / 2 ))p;${n}p" "$TEVD_ROOT/samples"
echo "collector lines and 'log lines dropped' reported: $(cat "$TEVD_ROOT/dev/log.count" 2>/dev/null)"
echo "tevfwd counters: $(cat "$TEVD_ROOT/var/run/orlan/tevfwd-counters.json" 2>/dev/null)"
echo "tevd's drop counters:"
grep -E '^tevd_(log_lines_dropped|trace_clients|trace_clients_disconnected|events_abandoned|records_refused)' \
  "$TEVD_ROOT/var/run/orlan/metrics/tevd.prom" 2>/dev/null | sed 's/^/   /'
kill $am 2>/dev/null
for p in $tevdpid $fwdpid $netpid; do kill -TERM $p 2>/dev/null; done
wait $tevdpid; echo "tevd exit status $?"
