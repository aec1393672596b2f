// The forwarder's state: events in, alerts out. Events become alert entries
// in a spool (one file each, so a crash loses nothing that was accepted);
// firing alerts are also kept in the active set, which each replica is sent
// again every re-send interval (apart from the spool and its limit), and
// which the lifetime ends. Each replica has its own place in the spool and
// its own re-sends, so one that is away holds nothing back for the others.
// Time is a parameter of every call (the caller's wall clock in
// milliseconds), so tests drive it. Not thread-safe: the program guards it
// with one mutex.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Qprob.h"

namespace tevfwd {

struct Options {
  std::vector<std::string> alertmanagers;
  bool audits = false;
  int64_t resendMs = 60000;          // re-send of firing alerts
  int64_t lifetimeMs = 86400000;     // a firing alert its clear never reached ends after this
  int64_t auditLifetimeMs = 300000;  // the life of an audit or one-shot alert
  std::string spoolDir;              // empty: nothing on disk (tests)
  std::string hostName;              // the instance label
  uint64_t spoolMaxBytes = 16u << 20;
  size_t activeMax = 20000;  // firing alerts kept for re-sending
  std::string runbookUrl;    // the runbook_url annotation: this + the event identifier
};

struct Counters {
  uint64_t received = 0;   // messages decoded
  uint64_t malformed = 0;  // messages that did not decode
  uint64_t sent = 0;       // alert entries delivered to every replica
  uint64_t resolved = 0;   // firing alerts resolved by a clear
  uint64_t expired = 0;    // firing alerts ended by their lifetime
  uint64_t spooled = 0;    // entries written to the spool (or kept, without a spool directory)
  uint64_t unspooled = 0;  // entries the spool could not take (full, read-only): memory only
  uint64_t dropped = 0;    // entries dropped: spool full, or refused by a replica
  uint64_t capped = 0;     // firing alerts not kept for re-sending: the active set was full
  uint64_t retimed = 0;    // alerts whose time stamp was out of range and was replaced
};

// What happened to one replica's share of the alerts (the counters file).
struct ReplicaCounters {
  uint64_t sent = 0;     // spool entries it took
  uint64_t resent = 0;   // re-sends of firing alerts it took
  uint64_t failed = 0;   // attempts it did not answer (or answered with an error)
  uint64_t spooled = 0;  // spool entries queued for it
  uint64_t dropped = 0;  // entries it never got: spool full, unreadable, or refused by it
  uint64_t expired = 0;  // entries found at start-up whose end Alertmanager had reached alone
  bool up = true;        // its last attempt was answered (true before the first)
};

// One alert on its way out. `endsAtMs` 0: firing, its end is set when sent.
struct Entry {
  uint64_t seq = 0;
  int64_t spooledMs = 0;  // when it was spooled (a recovered one: its file's time)
  nlohmann::json alert;   // {"labels":{..},"annotations":{..},"startsAt":ms,"endsAt":ms}
  uint32_t pending = 0;   // replicas (bit i) still to receive it
  bool onDisk = false;
  size_t bytes = 0;
};

class Forwarder {
 public:
  explicit Forwarder(Options opt);

  // Reads the spool directory and the saved active set (after a restart),
  // removes the temporary files of writes a crash cut short and numbers the
  // entries afresh from 1. Returns the number of spool entries recovered.
  size_t Recover(int64_t nowMs);
  // The firing alerts the saved active set brought back (Recover).
  size_t RecoveredFiring() const { return recoveredFiring_; }
  // One decoded event from tevd.
  void Accept(const QprobMessage &msg, int64_t nowMs);
  // The timed work: ends alerts past their lifetime.
  void Tick(int64_t nowMs);
  // Saves the active set when it changed (the caller paces this).
  void SaveActive();

  // One alert of a request: a spool entry (seq), or a re-send of the firing
  // alert `key` (seq 0); `text` is its JSON as Alertmanager takes it.
  struct Item {
    uint64_t seq = 0;
    std::string key;
    std::string text;
  };
  // Up to `max` alerts for replica `r`: its spool entries, oldest first,
  // then, once its re-send is due, the firing alerts.
  std::vector<Item> Take(size_t r, size_t max, int64_t nowMs);
  // Replica `r`'s re-send of the firing alerts is due at `nowMs`.
  void ResendNow(size_t r, int64_t nowMs) {
    if (r < replicas_.size()) replicas_[r].nextResendMs = nowMs;
  }
  // Replica `r` took (ok) or refused (bad input: never retried) `items`.
  void Done(size_t r, const std::vector<Item> &items, bool refused);
  // Replica `r` did not answer an attempt, or answered with an error.
  void Failed(size_t r);
  // The JSON array of `items`, the body of one request.
  static std::string Body(const std::vector<Item> &items, size_t begin, size_t end);
  // One alert as Alertmanager takes it: RFC 3339 times, a firing alert's end
  // three re-send intervals ahead.
  static std::string Render(const nlohmann::json &alert, const Options &opt, int64_t nowMs);

  size_t SpoolLength() const { return spool_.size(); }
  size_t ActiveCount() const { return active_.size(); }
  const Counters &counters() const { return counters_; }
  // Lines for the log (drops), taken by the caller.
  std::vector<std::string> TakeLogLines();
  const Options &options() const { return opt_; }
  void CountMalformed() { ++counters_.malformed; }
  // The counters with the spool's length and the number of firing alerts,
  // as one JSON object (the counters file that `tevctl fwd` prints).
  std::string CountersJson() const;
  // The counters file var/run/orlan/metrics/tevfwd.prom (Prometheus' text
  // format): per replica, then the whole forwarder's; `startedSec` is when
  // the program started. tevfwdMetrics.cpp.
  std::string MetricsText(int64_t nowMs, int64_t startedSec) const;

 private:
  struct Active {
    nlohmann::json alert;  // as in Entry, endsAtMs 0
    int64_t startsAtMs = 0;
  };
  void Push(nlohmann::json alert, int64_t nowMs);
  void Resolve(const QprobMessage &msg, const nlohmann::json &labels, int64_t nowMs);
  void EndAlert(const std::string &key, int64_t nowMs);
  std::string EntryPath(uint64_t seq) const;
  void Apply(const nlohmann::json &alert);
  void LoadActive(int64_t nowMs);
  // Per replica: when its next re-send is due, and the firing alerts (keys)
  // of the re-send under way.
  struct Replica {
    int64_t nextResendMs = 0;
    std::deque<std::string> resend;
    ReplicaCounters counters;
  };
  // Counts one entry lost (dropped or expired) against each replica of `pending`.
  void CountLost(uint32_t pending, uint64_t ReplicaCounters::*what);

  Options opt_;
  Counters counters_;
  std::deque<Entry> spool_;
  size_t spoolBytes_ = 0;
  uint64_t nextSeq_ = 1;
  uint32_t allReplicas_ = 0;
  std::map<std::string, Active> active_;  // by fingerprint (alertname + labels)
  bool activeDirty_ = false;
  uint64_t droppedUnlogged_ = 0;
  uint64_t unspooledUnlogged_ = 0;
  std::string unspooledWhy_;
  uint64_t cappedUnlogged_ = 0;
  uint64_t retimedUnlogged_ = 0;
  size_t recoveredFiring_ = 0;
  std::vector<Replica> replicas_;
  std::vector<std::string> log_;
};

// Writes through a temporary name and a rename: readers see all or nothing.
bool WriteFileAtomic(const std::string &path, const std::string &data);
// The active-set key of an alert: its labels, in order.
std::string Fingerprint(const nlohmann::json &labels);
// "2026-01-02T03:04:05.678Z"
std::string Rfc3339(int64_t ms);
// How long a firing alert lives: its row's lifetime for a state nothing
// reports the end of, else the option (a clear that never came).
int64_t LifetimeMs(const nlohmann::json &alert, const Options &opt);
// Puts a start out of the range Alertmanager takes (before 2000, over a day
// ahead of `nowMs`, or no number) at `nowMs`, keeping a one-shot's length;
// true when it did.
bool FixTimes(nlohmann::json *alert, int64_t nowMs, const Options &opt);

}  // namespace tevfwd
