// The retry queue of events the agent did not take at once. The locking
// rules are in tevdQprob.cpp's DESIGN block.
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "TevMutex.h"
#include "tevdAlarm.h"
#include "tevdLog.h"
#include "tevdMetrics.h"
#include "tevdQprob.h"
#include "tevdQprobInternal.h"

namespace {

constexpr unsigned kRetrySeconds = 180;
constexpr int kMaxRetries = 5;

struct RetryEntry {
  RetryEntry *next;
  RetryEntry *prev;
  int32_t failures;
  uint64_t length;
  uint8_t *message;
};

// Taken after no other lock; the alarm is armed with it released.
TevMutex retryListMutex;
RetryEntry retryHead GUARDED_BY(retryListMutex);  // sentinel of the circular list, oldest first
bool retryListInitialised GUARDED_BY(retryListMutex) = false;

std::atomic<int32_t> retryAlarmId{-1};
bool retryAlarmArmed GUARDED_BY(retryListMutex) = false;

const char *MessageId(const uint8_t *message) {
  return reinterpret_cast<const char *>(message) + TEVD_QPROB_HEADER_SIZE;
}

void InitRetryListLocked() REQUIRES(retryListMutex) {
  if (!retryListInitialised) {
    retryHead.next = &retryHead;
    retryHead.prev = &retryHead;
    retryListInitialised = true;
  }
}

void UnlinkEntry(RetryEntry *e) {
  e->prev->next = e->next;
  e->next->prev = e->prev;
  free(e->message);
  free(e);
}

void ArmRetryAlarm() {
  TevdAlarm_Set(retryAlarmId.load(std::memory_order_relaxed), 0, kRetrySeconds, nullptr);
}

}  // namespace

void TevdQprobRetry_Init(void) {
  retryAlarmId.store(TevdAlarm_Register(TevdQprobAlarmHandler), std::memory_order_relaxed);
}

void TevdQprob_Queue(const void *message, size_t length) {
  retryListMutex.lock();
  InitRetryListLocked();
  retryListMutex.unlock();

  RetryEntry *entry = static_cast<RetryEntry *>(malloc(sizeof(RetryEntry)));
  if (entry == nullptr) {
    return;
  }
  entry->message = static_cast<uint8_t *>(malloc(length > 0 ? length : 1));
  if (entry->message == nullptr) {
    free(entry);
    return;
  }
  memcpy(entry->message, message, length);
  entry->failures = 0;
  entry->length = length;

  retryListMutex.lock();
  entry->prev = retryHead.prev;
  entry->next = &retryHead;
  retryHead.prev->next = entry;
  retryHead.prev = entry;
  TevdMetrics_Add(gTevdMetrics.eventsQueued);
  bool arm = !retryAlarmArmed;
  retryAlarmArmed = true;
  retryListMutex.unlock();

  if (arm) {
    ArmRetryAlarm();
  }
}

void TevdQprobAlarmHandler(void) {
  // Take the list out; sends happen without the mutex.
  RetryEntry pass;
  retryListMutex.lock();
  InitRetryListLocked();
  if (retryHead.next == &retryHead) {
    retryAlarmArmed = false;
    retryListMutex.unlock();
    return;
  }
  pass.next = retryHead.next;
  pass.prev = retryHead.prev;
  pass.next->prev = &pass;
  pass.prev->next = &pass;
  retryHead.next = retryHead.prev = &retryHead;
  retryListMutex.unlock();

  RetryEntry *next;
  for (RetryEntry *e = pass.next; e != &pass; e = next) {
    next = e->next;
    errno = 0;
    int rc = TevdQprob_Send(e->message, e->length);
    TevdMetrics_Add(gTevdMetrics.eventsRetried);
    bool timedOut = rc < 0 && TevdQprob_LastSendTimedOut();
    TevdQprob_NoteStuck(timedOut);
    if (rc < 0) {
      e->failures++;
    }
    int n = e->failures;
    // Counts include the first, immediate attempt.
    if (rc >= 0) {
      TevdLog("Successfully sent event (%s) after %d failure%s.\n", MessageId(e->message), n + 1,
              n == 0 ? "" : "s");
      TevdMetrics_Add(gTevdMetrics.eventsRetryDelivered);
      UnlinkEntry(e);
    } else if (n <= kMaxRetries - 1) {
      TevdLog("Failed to send event (%s); %d failures so far.\n", MessageId(e->message), n + 1);
    } else {
      TevdLog("Abandoned event (%s) after %d failures.\n", MessageId(e->message), n + 1);
      TevdMetrics_Add(gTevdMetrics.eventsAbandoned);
      UnlinkEntry(e);
    }
    if (timedOut) {
      // The agent is stuck: the pass ends here, so that it (and every alarm
      // behind it) costs one time-out at most. The entries after this one
      // were not tried and count nothing; they keep their place and their
      // count for the next pass, so every event still gets all its attempts.
      break;
    }
  }

  // What stays goes back in front of what was queued during the pass.
  retryListMutex.lock();
  if (pass.next != &pass) {
    pass.prev->next = retryHead.next;
    retryHead.next->prev = pass.prev;
    retryHead.next = pass.next;
    pass.next->prev = &retryHead;
  }
  bool more = retryHead.next != &retryHead;
  retryAlarmArmed = more;
  retryListMutex.unlock();
  if (more) {
    ArmRetryAlarm();
  }
}

void TevdQprobRetry_Clear(void) {
  retryListMutex.lock();
  InitRetryListLocked();
  while (retryHead.next != &retryHead) {
    UnlinkEntry(retryHead.next);
  }
  retryAlarmArmed = false;
  retryListMutex.unlock();
}
