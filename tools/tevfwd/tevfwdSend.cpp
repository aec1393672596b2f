// Delivery to the replicas: batches from the forwarder's state, a refused
// batch split to find the alert Alertmanager will not take, back-off and
// its rate-limited log line.
#include "tevfwdSend.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace tevfwd {

std::atomic<bool> gStop{false};

void Log(const char *fmt, ...) {
  char line[2048];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  fprintf(stderr, "tevfwd: %s\n", line);
}

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

namespace {

constexpr size_t kBatch = 200;

using Items = std::vector<Forwarder::Item>;

// Posts items [begin, end): true when the replica answered (took or refused
// them), false when it did not. A refused request is split in halves until
// the alert Alertmanager will not take stands alone; only that one is dropped.
bool PostRange(Shared *s, size_t r, Replica *rep, const Items &items, size_t begin, size_t end,
               long timeoutMs, long *failedStatus, std::string *why) {
  long status = rep->poster->Post(Forwarder::Body(items, begin, end), timeoutMs, why);
  if (status == 200 || ((status == 400 || status == 422) && end - begin == 1)) {
    const bool refused = status != 200;
    if (refused) {
      Log("%s refused an alert (HTTP %ld); dropped: %.300s", rep->poster->url().c_str(), status,
          items[begin].text.c_str());
    }
    TevLock lock(&s->mu);
    s->fwd->Done(
        r, Items(items.begin() + static_cast<long>(begin), items.begin() + static_cast<long>(end)),
        refused);
    return true;
  }
  if (status == 400 || status == 422) {
    size_t mid = begin + (end - begin) / 2;
    return PostRange(s, r, rep, items, begin, mid, timeoutMs, failedStatus, why) &&
           PostRange(s, r, rep, items, mid, end, timeoutMs, failedStatus, why);
  }
  *failedStatus = status;
  return false;
}

// One attempt to the replica: true when something was delivered.
}  // namespace

bool SendOnce(Shared *s, size_t r, Replica *rep, int64_t retryMaxMs, long timeoutMs) {
  Items items;
  {
    TevLock lock(&s->mu);
    items = s->fwd->Take(r, kBatch, NowMs());
  }
  if (items.empty()) return false;
  std::string why;
  long status = -1;
  bool answered = PostRange(s, r, rep, items, 0, items.size(), timeoutMs, &status, &why);
  int64_t now = NowMs();
  if (answered) {
    if (rep->failures != 0) {
      Log("%s: delivering again after %llu failed attempt(s)", rep->poster->url().c_str(),
          static_cast<unsigned long long>(rep->failures));
      // A replica that was away may have restarted and forgotten every
      // alert: it is sent the firing ones now, not at its next re-send.
      TevLock lock(&s->mu);
      s->fwd->ResendNow(r, now);
    }
    rep->failures = rep->unloggedFailures = 0;
    rep->backoffMs = 0;
    rep->nextLogMs = 0;
    return true;
  }
  if (gStop) return false;
  {
    TevLock lock(&s->mu);
    s->fwd->Failed(r);
  }
  ++rep->failures;
  ++rep->unloggedFailures;
  rep->backoffMs = std::min(retryMaxMs, rep->backoffMs == 0 ? 250 : rep->backoffMs * 2);
  rep->nextTryMs = now + rep->backoffMs;
  if (now >= rep->nextLogMs) {
    std::string what = status < 0 ? why : "HTTP " + std::to_string(status);
    Log("delivery to %s failed: %s (%llu failure(s) since the last line); alerts wait in the spool",
        rep->poster->url().c_str(), what.c_str(),
        static_cast<unsigned long long>(rep->unloggedFailures));
    rep->unloggedFailures = 0;
    rep->nextLogMs = now + kFailureLogIntervalMs;
  }
  return false;
}

// One replica's thread: its spool entries, then its re-sends, with its own
// back-off.
void ReplicaLoop(Shared *s, size_t r, Replica *rep, int64_t retryMaxMs, long timeoutMs) {
  while (!gStop) {
    int64_t now = NowMs();
    if (now >= rep->nextTryMs && SendOnce(s, r, rep, retryMaxMs, timeoutMs)) continue;
    int64_t waitMs = std::min<int64_t>(100, std::max<int64_t>(1, rep->nextTryMs - now));
    TevLock lock(&s->mu);
    if (!gStop) s->wake.wait_for(s->mu, std::chrono::milliseconds(waitMs));
  }
}

}  // namespace tevfwd
