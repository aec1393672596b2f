// Micro-benchmarks of the pieces one observation goes through: record decode,
// argument reading (platform and daemon readers), argument-block
// serialisation, a whole qprob build, the trace line and one dispatch.
// Everything runs under a private TEVD_ROOT without a dev/log, so log lines
// cost their formatting and one failed send, as in a daemon without collector.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "MsgFmt.h"
#include "TevLib.h"
#include "TevRecord.h"
#include "tevdCorrelator.h"
#include "tevdQprob.h"
#include "tevdTrace.h"
#include "tevdUtil.h"

namespace {

std::vector<uint8_t> SampleRecord() {
  return TevRecord_Encode("tev.net.mtlnic.ip.duplicate",
                          "Duplicate IP address %s on %s owned by %s", 1700000000123456ull,
                          {MsgFmt_Value::Str("10.0.0.7"), MsgFmt_Value::Str("mtlnic1"),
                           MsgFmt_Value::Str("02:00:00:aa:bb:cc")});
}

std::vector<uint8_t> MixedRecord() {
  return TevRecord_Encode("tev.cpu.mce.corrected", "CPU %d bank %u status %s count %ld",
                          1700000000123456ull,
                          {MsgFmt_Value::I32(3), MsgFmt_Value::U32(7),
                           MsgFmt_Value::Str("corrected"), MsgFmt_Value::I64(42)});
}

// Tev_MakeTev takes a malloc'd buffer: the copy is part of what the agent
// side pays per observation too.
Tev *MakeFrom(const std::vector<uint8_t> &rec) {
  void *buf = malloc(rec.size());
  memcpy(buf, rec.data(), rec.size());
  Tev *tev = nullptr;
  if (Tev_MakeTev(buf, static_cast<uint32_t>(rec.size()), &tev) != 0) {
    abort();
  }
  return tev;
}

void ScratchRootOnce() {
  static bool done = false;
  if (!done) {
    char tmpl[] = "/tmp/tevd-bench-micro-XXXXXX";
    const char *dir = mkdtemp(tmpl);
    if (dir == nullptr) {
      abort();
    }
    setenv("TEVD_ROOT", dir, 1);
    // Nothing is written under it: the log sink finds no dev/log.
    rmdir(dir);
    done = true;
  }
}

void BM_RecordDecode(benchmark::State &state) {
  std::vector<uint8_t> rec = SampleRecord();
  for (auto _ : state) {
    Tev *tev = MakeFrom(rec);
    const char *id = nullptr;
    uint64_t ts = 0;
    uint32_t count = 0;
    const char *s = nullptr;
    Tev_GetID(tev, &id);
    Tev_GetTimestamp(tev, &ts);
    Tev_GetArgCount(tev, &count);
    Tev_GetStringArg(tev, 2, &s);
    benchmark::DoNotOptimize(id);
    benchmark::DoNotOptimize(s);
    Tev_Free(tev);
  }
  state.SetLabel(std::to_string(rec.size()) + "-byte record, 3 strings");
}
BENCHMARK(BM_RecordDecode);

void BM_GetMsg(benchmark::State &state) {
  std::vector<uint8_t> rec = MixedRecord();
  Tev *tev = MakeFrom(rec);
  for (auto _ : state) {
    char *msg = nullptr;
    size_t len = 0;
    Tev_GetMsg(tev, &msg, &len);
    benchmark::DoNotOptimize(msg);
    free(msg);
  }
  Tev_Free(tev);
}
BENCHMARK(BM_GetMsg);

void BM_TevGetArgs(benchmark::State &state) {
  std::vector<uint8_t> rec = MixedRecord();
  Tev *tev = MakeFrom(rec);
  for (auto _ : state) {
    int32_t cpu = 0;
    uint32_t bank = 0;
    const char *status = nullptr;
    long count = 0;
    if (Tev_GetArgs(tev, 0, "%d %u %p %ld", &cpu, &bank, &status, &count) != 0) {
      state.SkipWithError("Tev_GetArgs failed");
      break;
    }
    benchmark::DoNotOptimize(status);
  }
  Tev_Free(tev);
}
BENCHMARK(BM_TevGetArgs);

void BM_TevdUtilGetArgs(benchmark::State &state) {
  std::vector<uint8_t> rec = MixedRecord();
  Tev *tev = MakeFrom(rec);
  for (auto _ : state) {
    int32_t cpu = 0;
    uint32_t bank = 0;
    const char *status = nullptr;
    long count = 0;
    if (TevdUtil_GetArgs(tev, "CPU %d bank %u status %s count %ld", &cpu, &bank, &status, &count) !=
        0) {
      state.SkipWithError("TevdUtil_GetArgs failed");
      break;
    }
    benchmark::DoNotOptimize(status);
  }
  Tev_Free(tev);
}
BENCHMARK(BM_TevdUtilGetArgs);

bool Serialise(void *buf, size_t *size, MsgFmt_Arg **args, int *num, const char *format, ...) {
  va_list va;
  va_start(va, format);
  char *error = nullptr;
  bool ok = MsgFmt_GetArgsWithBuf(format, va, args, num, &error, buf, size);
  va_end(va);
  return ok;
}

void BM_MsgFmtSerialise(benchmark::State &state) {
  alignas(8) char buf[1171];
  for (auto _ : state) {
    size_t size = sizeof buf;
    MsgFmt_Arg *args = nullptr;
    int num = 0;
    if (!Serialise(buf, &size, &args, &num, "%s on %s owned by %s, %d tries", "10.0.0.7", "mtlnic1",
                   "02:00:00:aa:bb:cc", 3)) {
      state.SkipWithError("serialisation failed");
      break;
    }
    MsgFmt_SwizzleArgs(args, num);
    benchmark::DoNotOptimize(args);
  }
}
BENCHMARK(BM_MsgFmtSerialise);

int SwallowEvent(const void *message, size_t length, void *ctx) {
  benchmark::DoNotOptimize(message);
  ++*static_cast<size_t *>(ctx);
  return 0;
}

// One whole post: template split, serialisation, header, trace line, the
// "hook" send and the event's log line. The rate window is reset every 500
// posts so that every iteration builds and sends (the limit is 1000 per 60 s).
void BM_QprobPost(benchmark::State &state) {
  ScratchRootOnce();
  size_t sent = 0;
  TevdQprob_SetSendHookForTest(SwallowEvent, &sent);
  TevdQprob_ResetForTest();
  int n = 0;
  for (auto _ : state) {
    TevdQprob_Post(0, Problem,
                   "@&!*@*@(kos.problem.net.mtlnic.ip.duplicate)Duplicate IP address detected "
                   "for %s on interface %s, current owner being %s.",
                   "10.0.0.7", "mtlnic1", "02:00:00:aa:bb:cc");
    if (++n == 500) {
      state.PauseTiming();
      TevdQprob_ResetForTest();
      n = 0;
      state.ResumeTiming();
    }
  }
  TevdQprob_SetSendHookForTest(nullptr, nullptr);
  if (sent < static_cast<size_t>(state.iterations())) {
    state.SkipWithError("some posts were not sent (rate limit?)");
  }
}
BENCHMARK(BM_QprobPost);

void BM_TraceRecord(benchmark::State &state) {
  std::vector<MsgFmt_Value> values = {MsgFmt_Value::Str("10.0.0.7"), MsgFmt_Value::Str("mtlnic1"),
                                      MsgFmt_Value::I32(-3), MsgFmt_Value::U64(42)};
  std::vector<uint8_t> block = MsgFmt_EncodeBlock(values);
  for (auto _ : state) {
    TevdTrace_Record("IN", 1700000000123456ull, "tev.net.mtlnic.ip.duplicate", block.data(),
                     block.size(), static_cast<int>(values.size()));
  }
}
BENCHMARK(BM_TraceRecord);

int Handled(Tev *tev) {
  benchmark::DoNotOptimize(tev);
  return 0;
}

// A small map like a misc correlator's; the observation is in the map, so
// the dispatch logs the observation line then calls the handler.
void BM_CorrelatorDispatch(benchmark::State &state) {
  ScratchRootOnce();
  TevHandlerMap map = {{"tev.cpu.mce.corrected", Handled},
                       {"tev.cpu.mce.uncorrected", Handled},
                       {"tev.cpu.thermal.throttle", Handled},
                       {"tev.cpu.microcode.update", Handled},
                       {"tev.cpu.offline", Handled}};
  std::vector<uint8_t> rec = MixedRecord();
  Tev *tev = MakeFrom(rec);
  for (auto _ : state) {
    TevdCorrelator_Dispatch(Handled, map, tev);
  }
  Tev_Free(tev);
}
BENCHMARK(BM_CorrelatorDispatch);

// The same without the handler being in the map: the default handler runs
// and no observation line is logged; isolates the map copy and look-up.
void BM_CorrelatorDispatchDefault(benchmark::State &state) {
  ScratchRootOnce();
  TevHandlerMap map = {{"tev.cpu.mce.uncorrected", Handled},
                       {"tev.cpu.thermal.throttle", Handled},
                       {"tev.cpu.microcode.update", Handled},
                       {"tev.cpu.offline", Handled}};
  std::vector<uint8_t> rec = MixedRecord();
  Tev *tev = MakeFrom(rec);
  for (auto _ : state) {
    TevdCorrelator_Dispatch(Handled, map, tev);
  }
  Tev_Free(tev);
}
BENCHMARK(BM_CorrelatorDispatchDefault);

}  // namespace

BENCHMARK_MAIN();
