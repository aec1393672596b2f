// The daemon's counters, written for Prometheus' text format.
//
// DESIGN: every counter is a relaxed atomic, bumped where the thing happens
// (one increment on the hot path, no lock). One small thread, the only
// reader, renders them every TEVD_METRICS_INTERVAL seconds into
// var/run/orlan/metrics/tevd.prom under the root: a temporary file in the
// same directory, then rename, so a reader (node_exporter's textfile
// collector, `tevctl metrics`) sees the old file or the new one, never half
// of one. The file goes at a clean exit. Nothing here logs. docs/metrics.md.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

using TevdCounter = std::atomic<uint64_t>;

constexpr int TEVD_METRICS_CONTEXTS = 23;  // async-00..async-21, then user
constexpr int TEVD_METRICS_INTERVAL = 2;
// The file, relative to the root.
constexpr const char *TEVD_METRICS_PATH = "/var/run/orlan/metrics/tevd.prom";

struct TevdMetrics {
  TevdCounter read[TEVD_METRICS_CONTEXTS];  // by context index
  TevdCounter recordsOversized;
  TevdCounter eventsPosted[3];  // by EventClass: problem, audit, clear
  TevdCounter eventsRateLimited;
  TevdCounter eventsQueued;
  TevdCounter eventsRetried;         // send attempts of the retry passes
  TevdCounter eventsRetryDelivered;  // queued events a retry pass delivered
  TevdCounter eventsAbandoned;
  TevdCounter pipeWaits;                 // waits of the reader for room in an agent's pipe
  std::atomic<int64_t> lastObservation;  // seconds since the epoch, 0: none
  std::atomic<int64_t> lastEvent;
  std::atomic<int64_t> started;
};
extern TevdMetrics gTevdMetrics;

inline void TevdMetrics_Add(TevdCounter &c, uint64_t n = 1) {
  c.fetch_add(n, std::memory_order_relaxed);
}
// Counts the packed records of one read buffer against context `ctx` and
// stamps the time of the last observation.
void TevdMetrics_Read(int ctx, const uint8_t *buf, size_t length);
// The counter of records handed to correlator `name`: one per name, kept for
// the process's life; nullptr once TEVD_MAX_AGENTS names are taken.
TevdCounter *TevdMetrics_CorrelatorCounter(const char *name);
// The exposition text of every counter, as the file holds it.
std::string TevdMetrics_Text(void);
// Writes the file once; 0 or errno.
int TevdMetrics_WriteFile(void);
// The writer thread: Start writes the file at once, then every interval;
// Stop ends the thread (bounded by one write) and removes the file.
void TevdMetrics_Start(void);
void TevdMetrics_Stop(void);
