#!/bin/sh
# Builds the benchmarks (Release, build-bench/) and runs them all, then prints
# a table and writes docs/performance.md.
#   bench/run.sh [N]        N observations for the ingest run (default 1000000)
# Environment: LATENCY_RUNS (default 10 daemon runs of 1000 events each),
# CONTEXTS (default 4), BUILD (default build-bench), CALLGRIND (default 1:
# also run bench/callgrind.sh, a few minutes; 0 skips it), SEC (default 1: also
# run bench/sec.sh, the comparison with SEC, when `sec` is installed; 0 skips it),
# BEFORE_TEVD (optional: an earlier tevd binary measured the same way in the
# same invocation, for the before/after table; BEFORE_LATENCY_RUNS, default 2).
set -eu
cd "$(dirname "$0")/.."
scripts/deps.sh daemon bench
N=${1:-1000000}
BUILD=${BUILD:-build-bench}
LATENCY_RUNS=${LATENCY_RUNS:-10}
CONTEXTS=${CONTEXTS:-4}
CALLGRIND=${CALLGRIND:-1}
SEC=${SEC:-1}
# -O3 brings out two truncation warnings in the daemon's sources; they stay
# warnings in this build only.
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DTEVD_BUILD_BENCH=ON -DTEVD_BUILD_TESTS=OFF \
  "-DCMAKE_CXX_FLAGS=-Wno-error=stringop-truncation -Wno-error=format-truncation" >/dev/null
cmake --build "$BUILD" -j2 --target tevd tevctl tevd_micro_bench tevd_ingest_bench >/dev/null

OUT=$(mktemp -d /tmp/tevd-bench-run-XXXXXX)
"$BUILD/bench/tevd_micro_bench" --benchmark_min_time=0.5 --benchmark_format=csv \
  >"$OUT/micro.csv" 2>"$OUT/micro.err"
"$BUILD/bench/tevd_ingest_bench" --n "$N" --contexts "$CONTEXTS" --latency-runs "$LATENCY_RUNS" \
  --tevd "$BUILD/apps/tevd/tevd" --tevctl "$BUILD/tools/tevctl/tevctl" | tee "$OUT/ingest.txt"
: >"$OUT/before.txt"
if [ -n "${BEFORE_TEVD:-}" ]; then
  "$BUILD/bench/tevd_ingest_bench" --n "$N" --contexts "$CONTEXTS" --latency-runs "${BEFORE_LATENCY_RUNS:-2}" \
    --tevd "$BEFORE_TEVD" --tevctl "$BUILD/tools/tevctl/tevctl" | tee "$OUT/before.txt"
fi
if [ "$CALLGRIND" != 0 ]; then
  BUILD=$BUILD bench/callgrind.sh | tee "$OUT/callgrind.txt"
else
  : >"$OUT/callgrind.txt"
fi

: >"$OUT/sec.txt"
if [ "$SEC" != 0 ] && command -v sec >/dev/null; then
  # Writes docs/performance-sec.md, which goes into docs/performance.md below.
  BUILD=$BUILD CALLGRIND=$CALLGRIND bench/sec.sh | tee "$OUT/sec.txt" || true
fi

r() { awk -v k="$1" '$1=="RESULT" && $2==k {print $3}' "$OUT/ingest.txt" "$OUT/callgrind.txt"; }
# The comparison's keys overlap the ingest's (tevd_cpu_us_per_obs): read apart.
rs() { awk -v k="$1" '$1=="RESULT" && $2==k {print $3}' "$OUT/sec.txt"; }
rb() { awk -v k="$1" '$1=="RESULT" && $2==k {print $3}' "$OUT/before.txt"; }
calc() { awk "BEGIN {printf \"$1\", $2}"; }

CPU=$(lscpu | sed -n 's/^Model name: *//p' | head -1)
CORES=$(nproc)
KERNEL=$(uname -r)
DATE=$(date -u +%Y-%m-%d)
COMMIT=$(git rev-parse --short HEAD)

{
echo "# Performance"
echo
echo "Measured by \`bench/run.sh $N\` on $DATE (commit $COMMIT), Release build."
echo "Machine: $CPU, $CORES cores (shared with other work while measuring), Linux $KERNEL."
echo "Figures that matter are the ratios, measured side by side in the same run;"
echo "absolute numbers are context for this machine only."
echo
RATIO=$(calc %.3f "$(r tevd_obs_per_s)/$(r floor_obs_per_s)")
verdict() { awk "BEGIN {print ($1) ? \"met\" : \"not met\"}"; }
echo "## Targets"
echo
echo "| target | figure | verdict |"
echo "|---|---|---|"
if [ "$(rs events_equal)" = yes ]; then
  echo "| tevd CPU per observation ≤ ¼ of SEC's on the same corpus | $(rs tevd_over_sec) (see tevd against SEC) | $(verdict "$(rs tevd_over_sec) <= 0.25") |"
else
  echo "| tevd CPU per observation ≤ ¼ of SEC's on the same corpus | not measured this run (bench/sec.sh) | open |"
fi
echo "| system calls per observation ≤ 1.5 (ingest corpus, every thread) | $(calc %.2f "$(r tevd_syscalls_per_obs)") | $(verdict "$(r tevd_syscalls_per_obs) <= 1.5 && $(r tevd_syscalls_per_obs) >= 0") |"
echo "| tevd ≥ 50% of the floor's throughput | $RATIO | $(verdict "$RATIO >= 0.5") |"
echo "| p99 latency < 1 ms, one observation per 10 ms | $(calc %.0f "$(r latency_p99_us)") µs | $(verdict "$(r latency_p99_us) < 1000") |"
echo "| p99 latency < 1 ms under load (during the ingest) | $(calc %.0f "$(r load_latency_p99_us)") µs | $(verdict "$(r load_latency_p99_us) < 1000") |"
echo "| idle resident size < 8 MiB | $(calc %.1f "$(r rss_idle_kib)/1024") MiB | $(verdict "$(r rss_idle_kib) < 8192") |"
echo
BUSY=$(calc %.0f "100*($(r tevd_reader_samples)-$(r tevd_reader_in_pipe_write)-$(r tevd_reader_in_poll))/$(r tevd_reader_samples)")
echo "Where tevd's throughput goes: its single reading thread was found running (not"
echo "waiting for input, not blocked on a pipe) in $BUSY% of the samples during the ingest"
echo "and blocked on a full agent pipe in $(r tevd_reader_in_pipe_write) of $(r tevd_reader_samples)."
if [ "$BUSY" -ge 80 ]; then
  echo "The reader, not the agents, sets the pace: its stages (read, distribute with the trace"
  echo "line) are in the callgrind table below."
fi
echo
echo "## End to end"
echo
echo "Two floors, both minimal programs on the same corpus, senders and collector: today's"
echo "(one receive, one pipe write, one pipe read of the length and one of the record, one"
echo "log datagram per observation) and the batched one (recvmmsg on the contexts, one pipe"
echo "write per poll pass, one large pipe read per wake-up, sendmmsg for the log lines)."
echo
echo "| measure | tevd | floor | batched floor | tevd ÷ floor | tevd ÷ batched floor |"
echo "|---|---|---|---|---|---|"
echo "| observations/s, $(calc %.0f "$(r n)") observations over $(r contexts) asynchronous contexts | $(calc %.0f "$(r tevd_obs_per_s)") | $(calc %.0f "$(r floor_obs_per_s)") | $(calc %.0f "$(r floor_batched_obs_per_s)") | $(calc %.3f "$(r tevd_obs_per_s)/$(r floor_obs_per_s)") | $(calc %.3f "$(r tevd_obs_per_s)/$(r floor_batched_obs_per_s)") |"
echo "| CPU µs per observation (process utime+stime) | $(calc %.2f "$(r tevd_cpu_us_per_obs)") | $(calc %.2f "$(r floor_cpu_us_per_obs)") | $(calc %.2f "$(r floor_batched_cpu_us_per_obs)") | $(calc %.2f "$(r tevd_cpu_us_per_obs)/$(r floor_cpu_us_per_obs)") | $(calc %.2f "$(r tevd_cpu_us_per_obs)/$(r floor_batched_cpu_us_per_obs)") |"
echo "| system calls per observation (perf, raw_syscalls:sys_enter, every thread) | $(calc %.2f "$(r tevd_syscalls_per_obs)") | $(calc %.2f "$(r floor_syscalls_per_obs)") | $(calc %.2f "$(r floor_batched_syscalls_per_obs)") | | |"
echo "| observations logged / sent | $(calc %.0f "$(r tevd_handled)") / $(calc %.0f "$(r n)") | $(calc %.0f "$(r floor_handled)") / $(calc %.0f "$(r n)") | $(calc %.0f "$(r floor_batched_handled)") / $(calc %.0f "$(r n)") | | |"
echo
if [ -s "$OUT/before.txt" ]; then
  echo "Before and after batching, side by side in this run: \`$BEFORE_TEVD\` (before: a peek and"
  echo "a receive per record, one pipe write per record and agent, a header and a body read"
  echo "per record in each agent, one log datagram per line) against this commit's tevd."
  echo
  echo "| measure | before | after | after ÷ before |"
  echo "|---|---|---|---|"
  row() { echo "| $1 | $(calc "$2" "$(rb "$3")") | $(calc "$2" "$(r "$3")") | $(calc %.2f "$(r "$3")/$(rb "$3")") |"; }
  row "observations/s (ingest)" %.0f tevd_obs_per_s
  row "CPU µs per observation (ingest)" %.2f tevd_cpu_us_per_obs
  row "system calls per observation (ingest)" %.2f tevd_syscalls_per_obs
  row "latency p50, one observation per 10 ms, µs" %.0f latency_p50_us
  row "latency p99, one observation per 10 ms, µs" %.0f latency_p99_us
  row "latency max, one observation per 10 ms, µs" %.0f latency_max_us
  row "latency p50 under load, µs" %.0f load_latency_p50_us
  row "latency p99 under load, µs" %.0f load_latency_p99_us
  row "latency max under load, µs" %.0f load_latency_max_us
  row "idle resident size, KiB" %.0f rss_idle_kib
  echo
  echo "(before: $(rb latency_events) low-rate events over $(rb latency_runs) daemon runs; after: $(r latency_events) over $(r latency_runs).)"
  echo
fi
echo "Mean record size $(calc %.0f "$(r corpus_mean_record_bytes)") bytes; identifiers in hardware, cpu, vm, uw, swap"
echo "and migrate (log-only correlators), 1 to 4 arguments of int32, uint32, int64 and string."
echo
echo "Bursts: of the $(calc %.0f "$(r n)") sends, $(r tevd_full_queue_sends) found their context's queue full (the daemon behind)"
echo "with tevd and $(r floor_full_queue_sends) with the floor; the sender then waited and nothing was lost. Of"
echo "$(r tevd_reader_samples) samples of tevd's reading thread (every 1 ms), $(r tevd_reader_in_pipe_write) found it blocked writing to a"
echo "full agent pipe and $(r tevd_reader_in_poll) waiting in poll for input; the rest it was running."
echo
echo "| latency, observation sent → qprob event received, µs | one per 10 ms | under load |"
echo "|---|---|---|"
echo "| p50 | $(calc %.0f "$(r latency_p50_us)") | $(calc %.0f "$(r load_latency_p50_us)") |"
echo "| p99 | $(calc %.0f "$(r latency_p99_us)") | $(calc %.0f "$(r load_latency_p99_us)") |"
echo "| max | $(calc %.0f "$(r latency_max_us)") | $(calc %.0f "$(r load_latency_max_us)") |"
echo
echo "One per 10 ms: $(r latency_events) events (tev.net.mtlnic.ip.duplicate → kos.problem.net.mtlnic.ip.duplicate) over"
echo "$(r latency_runs) daemon runs of at most 1000 each; lost: $(r latency_lost), wrong identifier: $(r latency_wrong_id)."
echo "Under load: $(r load_latency_events) events, one at a time at most every 10 ms on a context of their own"
echo "while the ingest corpus saturates the other $(r contexts); lost: $(r load_latency_lost), wrong identifier: $(r load_latency_wrong_id)."
echo
echo "| tevd resident size (VmRSS) | KiB |"
echo "|---|---|"
echo "| idle, every correlator started | $(r rss_idle_kib) |"
echo "| under load, highest sample in the first quarter of the run | $(r rss_load_first_quarter_max_kib) |"
echo "| under load, highest sample | $(r rss_load_max_kib) |"
echo "| after the ingest run | $(r rss_after_kib) |"
echo "| with a trace client attached (history replayed: $(r trace_history_bytes) bytes) | $(r rss_trace_client_kib) |"
echo
if [ -s "$OUT/callgrind.txt" ]; then
echo "## Instructions per observation (callgrind, user space)"
echo
echo "\`bench/callgrind.sh\`: difference of two runs under callgrind (start-up and shutdown cancel out)."
echo "Inclusive instructions per observation of the stages (the kernel's work in system calls is not counted):"
echo
echo "| stage | ingest corpus (log-only) | direct translation with post |"
echo "|---|---|---|"
echo "| whole daemon | $(r ingest_instructions_per_obs) | $(r post_instructions_per_obs) |"
for k in TevLib_ReadFromFd TevdAgent_Distribute TevdTrace_Record TevdAgent_WaitTev TevdAgent_ReassembleStep TevdCorrelator_Dispatch TevdLog_Tev TevdQprob_Post PlatformLog_Vsyslog; do
  echo "| $k | $(r ingest_incl_$k) | $(r post_incl_$k) |"
done
echo
echo "Top functions by own instructions per observation, ingest corpus:"
echo
echo "| instructions | function |"
echo "|---|---|"
awk '$1=="TOP" && $2=="ingest" {n=$3; $1=$2=$3=""; sub(/^ +/, ""); gsub(/\|/, "\\|"); printf "| %s | %s |\n", n, $0}' "$OUT/callgrind.txt" | head -15
echo
echo "Top functions, direct translation with post:"
echo
echo "| instructions | function |"
echo "|---|---|"
awk '$1=="TOP" && $2=="post" {n=$3; $1=$2=$3=""; sub(/^ +/, ""); gsub(/\|/, "\\|"); printf "| %s | %s |\n", n, $0}' "$OUT/callgrind.txt" | head -15
echo
fi
echo "## Pieces (Google Benchmark, CPU ns per call)"
echo
echo "| benchmark | ns |"
echo "|---|---|"
grep '^"BM_' "$OUT/micro.csv" | awk -F, '{gsub(/"/,"",$1); printf "| %s | %.0f |\n", $1, $4}'
} >"$OUT/performance.md"
sed -n '/^## End to end/,$p' "$OUT/performance.md"
SECTION=""
[ "$(rs events_equal)" = yes ] && SECTION=docs/performance-sec.md
cat "$OUT/performance.md" $SECTION bench/method.md >docs/performance.md
echo "written: docs/performance.md (raw output in $OUT)"
