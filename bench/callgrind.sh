#!/bin/sh
# Instructions per observation of tevd (user space; the kernel's share of each
# system call is not counted), by callgrind, stable on a noisy machine.
#   bench/callgrind.sh            (N1=2000 N2=12000 P1=200 P2=1000 by default)
# Two paths, each as the difference of two runs so that start-up, the trace
# client's replay and shutdown cancel out:
#   ingest - the ingest corpus (log-only domains): read -> distribute (with
#            the trace "IN" line) -> reassemble -> dispatch -> handler (the
#            observation line); runs of N1 and N2 observations;
#   post   - the direct translation tev.net.mtlnic.ip.duplicate: the same
#            path plus TevdQprob_Post (message, log line, trace "OUT" line,
#            connection to the listener); runs of P1 and P2 events.
# Each daemon runs under valgrind --tool=callgrind through a wrapper given to
# the ingest benchmark as --tevd, in a private root of its own. Prints
# "RESULT key value" lines and the top functions by self cost per
# observation; callgrind_annotate's files stay in the printed directory.
set -eu
cd "$(dirname "$0")/.."
BUILD=${BUILD:-build-bench}
N1=${N1:-2000}
N2=${N2:-12000}
P1=${P1:-200}
P2=${P2:-1000}
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DTEVD_BUILD_BENCH=ON -DTEVD_BUILD_TESTS=OFF \
  "-DCMAKE_CXX_FLAGS=-Wno-error=stringop-truncation -Wno-error=format-truncation" >/dev/null
cmake --build "$BUILD" -j2 --target tevd tevctl tevd_ingest_bench >/dev/null
OUT=$(mktemp -d /tmp/tevd-callgrind-XXXXXX)
TEVD=$(pwd)/$BUILD/apps/tevd/tevd
BENCH=$BUILD/bench/tevd_ingest_bench
TEVCTL=$BUILD/tools/tevctl/tevctl

# run TAG ARGS...: one benchmark invocation with the daemon under callgrind.
run() {
  tag=$1
  shift
  # The benchmark gives a stopped daemon 5 s before SIGKILL, which a daemon
  # under valgrind on a busy machine may need for its exit; so the wrapper
  # passes SIGTERM on and valgrind, its child, survives a SIGKILL of the
  # wrapper and still writes its profile, which is awaited below.
  cat >"$OUT/tevd-$tag.sh" <<EOF
#!/bin/sh
valgrind --tool=callgrind --callgrind-out-file=$OUT/callgrind.$tag.out "$TEVD" "\$@" 2>>$OUT/valgrind.$tag.err &
echo \$! >$OUT/valgrind.$tag.pid
trap 'kill -TERM \$(cat $OUT/valgrind.$tag.pid)' TERM INT
wait
wait
EOF
  chmod +x "$OUT/tevd-$tag.sh"
  "$BENCH" --tevd "$OUT/tevd-$tag.sh" --tevctl "$TEVCTL" "$@" >"$OUT/ingest.$tag.txt"
  vpid=$(cat "$OUT/valgrind.$tag.pid")
  i=0
  while kill -0 "$vpid" 2>/dev/null && [ $i -lt 600 ]; do
    sleep 0.1
    i=$((i + 1))
  done
  callgrind_annotate --inclusive=no --threshold=100 "$OUT/callgrind.$tag.out" >"$OUT/self.$tag.txt"
  callgrind_annotate --inclusive=yes --threshold=100 "$OUT/callgrind.$tag.out" >"$OUT/incl.$tag.txt"
}

run n1 --n "$N1" --contexts 4 --no-latency
run n2 --n "$N2" --contexts 4 --no-latency
run p1 --no-ingest --latency-runs 1 --latency-per-run "$P1"
run p2 --no-ingest --latency-runs 1 --latency-per-run "$P2"

total() { sed -n 's/^PROGRAM TOTALS *\([0-9,]*\).*/\1/p;s/^ *\([0-9,]*\) *(100.0%) *PROGRAM TOTALS.*/\1/p' "$1" | tr -d , | head -1; }
# cost of function pattern $2 in annotate output $1 (0 when absent)
cost() { awk -v pat="$2" 'index($0, pat) {gsub(/,/, "", $1); print $1; found=1; exit} END {if (!found) print 0}' "$1"; }
per() { awk -v a="$1" -v b="$2" -v n="$3" 'BEGIN {printf "%.0f", (b - a) / n}'; }

for path in ingest post; do
  if [ $path = ingest ]; then a=n1; b=n2; n=$((N2 - N1)); else a=p1; b=p2; n=$((P2 - P1)); fi
  echo "RESULT ${path}_instructions_per_obs $(per "$(total "$OUT/self.$a.txt")" "$(total "$OUT/self.$b.txt")" $n)"
  for stage in "TevLib_ReadFromFd(" "TevdAgent_Distribute(" "TevdTrace_Record(" \
               "TevdAgent_WaitTev(" "TevdAgent_ReassembleStep(" "TevdCorrelator_Dispatch(" "TevdLog_Tev(" "TevdQprob_Post(" \
               "PlatformLog_Vsyslog("; do
    key=$(echo "$stage" | tr -d '( ')
    echo "RESULT ${path}_incl_$key $(per "$(cost "$OUT/incl.$a.txt" "$stage")" "$(cost "$OUT/incl.$b.txt" "$stage")" $n)"
  done
  # Top functions by self cost per observation (difference of the two runs).
  awk -v n=$n '
    FNR == 1 { file++ }
    /^ *[0-9,]+ +\([ 0-9.]+%\) +[^ ]/ {
      c = $1; gsub(/,/, "", c); name = $0; sub(/^ *[0-9,]+ +\([ 0-9.]+%\) +/, "", name)
      if (name ~ /PROGRAM TOTALS/) next
      if (file == 1) a[name] = c; else b[name] = c
    }
    END {
      for (k in b) {
        d = (b[k] - a[k]) / n
        if (d < 20) continue
        name = k
        sub(/ \[[^]]*\]$/, "", name); sub(/^[^:]*:/, "", name)
        gsub(/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >/, "std::string", name)
        if (length(name) > 110) name = substr(name, 1, 107) "..."
        printf "TOP %s %.0f %s\n", path, d, name
      }
    }
  ' path=$path "$OUT/self.$a.txt" "$OUT/self.$b.txt" | sort -k3,3nr | head -25
done
echo "raw output in $OUT"
