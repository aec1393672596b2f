#include "tevdMetrics.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "PlatformLog.h"
#include "PlatformRoot.h"
#include "PromText.h"
#include "TevClock.h"
#include "TevLib.h"
#include "TevMutex.h"
#include "tevdAgent.h"
#include "tevdTrace.h"

TevdMetrics gTevdMetrics;

namespace {

struct NamedCounter {
  char name[48];
  TevdCounter value{0};
};
// Serialises agents adding a name; readers take no lock (below).
TevMutex correlatorsMutex;
NamedCounter correlators[TEVD_MAX_AGENTS];
std::atomic<int> numCorrelators{0};  // entries below it are complete

uint32_t U32At(const uint8_t *p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

uint64_t Load(const TevdCounter &c) { return c.load(std::memory_order_relaxed); }

pthread_t writer;
bool writerStarted = false;
TevMutex stopMutex;
pthread_cond_t stopCond;
bool stopRequested GUARDED_BY(stopMutex) = false;

void *WriterMain(void *) {
  stopMutex.lock();
  while (!stopRequested) {
    stopMutex.unlock();
    TevdMetrics_WriteFile();
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += TEVD_METRICS_INTERVAL;
    stopMutex.lock();
    while (!stopRequested && stopMutex.WaitUntil(&stopCond, &deadline) == 0) {}
  }
  stopMutex.unlock();
  return nullptr;
}

}  // namespace

void TevdMetrics_Read(int ctx, const uint8_t *buf, size_t length) {
  uint64_t n = 0;
  size_t off = 0;
  while (length - off >= TEV_RECORD_HEADER_SIZE) {
    uint32_t len = U32At(buf + off + 16);
    if (len < TEV_RECORD_HEADER_SIZE || len > length - off) {
      break;
    }
    off += len;
    ++n;
  }
  if (ctx >= 0 && ctx < TEVD_METRICS_CONTEXTS) {
    TevdMetrics_Add(gTevdMetrics.read[ctx], n);
  }
  gTevdMetrics.lastObservation.store(TevClock_NowSeconds(), std::memory_order_relaxed);
}

TevdCounter *TevdMetrics_CorrelatorCounter(const char *name) {
  TevLock hold(&correlatorsMutex);
  int n = numCorrelators.load(std::memory_order_relaxed);
  for (int i = 0; i < n; ++i) {
    if (strcmp(correlators[i].name, name) == 0) {
      return &correlators[i].value;
    }
  }
  if (n >= TEVD_MAX_AGENTS) {
    return nullptr;
  }
  snprintf(correlators[n].name, sizeof correlators[n].name, "%s", name);
  numCorrelators.store(n + 1, std::memory_order_release);
  return &correlators[n].value;
}

std::string TevdMetrics_Text(void) {
  const TevdMetrics &m = gTevdMetrics;
  PromText out;
  char labels[96];
  out.Family("tevd_observations_read_total", "counter", "Observation records read, by context.");
  for (int i = 0; i < TEVD_METRICS_CONTEXTS; ++i) {
    if (i < TEVD_METRICS_CONTEXTS - 1) {
      snprintf(labels, sizeof labels, "{context=\"async-%02d\"}", i);
    } else {
      snprintf(labels, sizeof labels, "{context=\"user\"}");
    }
    out.Sample("tevd_observations_read_total", labels, Load(m.read[i]));
  }
  out.Family("tevd_observations_handled_total", "counter",
             "Observation records handed to a correlator, by correlator.");
  int n = numCorrelators.load(std::memory_order_acquire);
  for (int i = 0; i < n; ++i) {
    out.Sample("tevd_observations_handled_total",
               PromText::Labels("correlator", correlators[i].name), Load(correlators[i].value));
  }
  out.One("tevd_records_malformed_total", "counter", "Malformed records dropped.",
          TevLib_MalformedCount());
  out.One("tevd_records_refused_total", "counter",
          "Records refused from unprivileged user-level peers.", TevLib_RefusedCount());
  out.One("tevd_records_oversized_total", "counter",
          "Records larger than the read buffer, dropped.", Load(m.recordsOversized));
  out.Family("tevd_events_posted_total", "counter", "Events posted, by class.");
  static const char *const kClasses[] = {"problem", "audit", "clear"};
  for (int i = 0; i < 3; ++i) {
    snprintf(labels, sizeof labels, "{class=\"%s\"}", kClasses[i]);
    out.Sample("tevd_events_posted_total", labels, Load(m.eventsPosted[i]));
  }
  out.One("tevd_events_rate_limited_total", "counter", "Events dropped by the rate limit.",
          Load(m.eventsRateLimited));
  out.One("tevd_events_queued_total", "counter",
          "Events queued for retry after a failed or skipped send.", Load(m.eventsQueued));
  out.One("tevd_events_retried_total", "counter", "Send attempts of the retry passes.",
          Load(m.eventsRetried));
  out.One("tevd_events_retry_delivered_total", "counter", "Queued events a retry pass delivered.",
          Load(m.eventsRetryDelivered));
  out.One("tevd_events_abandoned_total", "counter", "Queued events abandoned after the last retry.",
          Load(m.eventsAbandoned));
  uint64_t queued = Load(m.eventsQueued);
  uint64_t left = Load(m.eventsRetryDelivered) + Load(m.eventsAbandoned);
  out.One("tevd_events_retry_list_length", "gauge", "Events waiting in the retry list.",
          queued > left ? queued - left : 0);
  out.One("tevd_log_lines_dropped_total", "counter",
          "Log lines dropped because the log collector's queue was full.",
          PlatformLog_DroppedLines());
  out.One("tevd_trace_clients", "gauge", "Connected trace clients.",
          static_cast<uint64_t>(TevdTrace_ClientCount()));
  out.One("tevd_agent_pipe_waits_total", "counter",
          "Waits of the reader for room in a correlator's full pipe.", Load(m.pipeWaits));
  out.One("tevd_last_observation_timestamp_seconds", "gauge",
          "Time of the last observation read (0: none yet).",
          static_cast<uint64_t>(m.lastObservation.load(std::memory_order_relaxed)));
  out.One("tevd_last_event_timestamp_seconds", "gauge",
          "Time of the last event posted (0: none yet).",
          static_cast<uint64_t>(m.lastEvent.load(std::memory_order_relaxed)));
  out.One("tevd_start_time_seconds", "gauge", "Time the daemon started.",
          static_cast<uint64_t>(m.started.load(std::memory_order_relaxed)));
  out.One("tevd_pid", "gauge", "Process id of the daemon that wrote these counters.",
          static_cast<uint64_t>(getpid()));
  return out.text();
}

int TevdMetrics_WriteFile(void) {
  return PromText_WriteFile(TEVD_METRICS_PATH, TevdMetrics_Text());
}

void TevdMetrics_Start(void) {
  if (gTevdMetrics.started.load(std::memory_order_relaxed) == 0) {
    gTevdMetrics.started.store(TevClock_NowSeconds(), std::memory_order_relaxed);
  }
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&stopCond, &attr);
  pthread_condattr_destroy(&attr);
  writerStarted = pthread_create(&writer, nullptr, WriterMain, nullptr) == 0;
}

void TevdMetrics_Stop(void) {
  if (!writerStarted) {
    return;
  }
  stopMutex.lock();
  stopRequested = true;
  pthread_cond_signal(&stopCond);
  stopMutex.unlock();
  pthread_join(writer, nullptr);
  writerStarted = false;
  unlink(PlatformRoot_Path(TEVD_METRICS_PATH).c_str());
}
