// Delivery to the replicas: one thread each, with its own back-off, so a
// replica that is away or never answers holds back no other.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>

#include "TevMutex.h"
#include "tevfwdCore.h"
#include "tevfwdHttp.h"

namespace tevfwd {

// Set by SIGTERM or SIGINT: every loop and request under way ends.
extern std::atomic<bool> gStop;

void Log(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int64_t NowMs();

// The state shared by the threads: the forwarder's spool and alerts, under
// one lock that no thread holds while it sends, reads or writes a file.
struct Shared {
  TevMutex mu;
  std::condition_variable_any wake;  // waited on with mu
  std::unique_ptr<Forwarder> fwd GUARDED_BY(mu);
};

// One replica's delivery state, for back-off and the rate-limited log line.
struct Replica {
  std::unique_ptr<AlertPoster> poster;
  int64_t nextTryMs = 0;
  int64_t backoffMs = 0;
  uint64_t failures = 0;  // consecutive
  uint64_t unloggedFailures = 0;
  int64_t nextLogMs = 0;
};

constexpr int64_t kFailureLogIntervalMs = 60000;

// One attempt to replica `r`: true when something was delivered.
bool SendOnce(Shared *s, size_t r, Replica *rep, int64_t retryMaxMs, long timeoutMs);
// Replica `r`'s thread, until gStop.
void ReplicaLoop(Shared *s, size_t r, Replica *rep, int64_t retryMaxMs, long timeoutMs);

}  // namespace tevfwd
