// What the forwarder tells of itself: the counters file in the style of
// tevd's and tevnet's (docs/metrics.md), one label set per replica, by the
// URL it was given; the counters that `tevctl fwd` prints; and the log lines
// of what it counted since the last report.
#include <unistd.h>

#include <map>

#include "PromText.h"
#include "tevfwdCore.h"

namespace tevfwd {

using nlohmann::json;

namespace {

// The families with one sample per replica, labelled with its URL.
void ReplicaFamilies(PromText *out, const std::vector<std::string> &urls,
                     const std::vector<ReplicaCounters> &counters,
                     const std::vector<uint64_t> &waiting, const std::vector<int64_t> &oldest,
                     int64_t nowMs) {
  auto perReplica = [&](const char *name, const char *type, const char *help, auto value) {
    out->Family(name, type, help);
    for (size_t r = 0; r < counters.size(); ++r) {
      out->Sample(name, PromText::Labels("replica", urls[r]), value(r));
    }
  };
  auto counter = [&](const char *name, const char *help, uint64_t ReplicaCounters::*what) {
    perReplica(name, "counter", help, [&](size_t r) { return counters[r].*what; });
  };
  counter("tevfwd_replica_sent_total", "Spool entries the replica took.", &ReplicaCounters::sent);
  counter("tevfwd_replica_resent_total", "Re-sends of firing alerts the replica took.",
          &ReplicaCounters::resent);
  counter("tevfwd_replica_failed_total",
          "Attempts the replica did not answer, or answered with an error.",
          &ReplicaCounters::failed);
  counter("tevfwd_replica_spooled_total", "Spool entries queued for the replica.",
          &ReplicaCounters::spooled);
  counter("tevfwd_replica_dropped_total",
          "Entries the replica never got: spool over its limit, unreadable, or refused by it.",
          &ReplicaCounters::dropped);
  counter("tevfwd_replica_expired_total",
          "Entries found at start-up whose end the replica had already reached by itself.",
          &ReplicaCounters::expired);
  perReplica("tevfwd_replica_up", "gauge",
             "1 when the replica answered the last attempt (or none was made yet), else 0.",
             [&](size_t r) { return uint64_t{counters[r].up}; });
  perReplica("tevfwd_replica_queue_alerts", "gauge", "Spool entries the replica has yet to take.",
             [&](size_t r) { return waiting[r]; });
  perReplica("tevfwd_replica_queue_age_seconds", "gauge",
             "Age of the oldest spool entry the replica has yet to take (0: none).", [&](size_t r) {
               return waiting[r] == 0 || nowMs <= oldest[r]
                          ? uint64_t{0}
                          : static_cast<uint64_t>((nowMs - oldest[r]) / 1000);
             });
}

}  // namespace

std::string Forwarder::MetricsText(int64_t nowMs, int64_t startedSec) const {
  PromText out;
  const size_t n = replicas_.size();
  std::vector<ReplicaCounters> counters;
  for (const Replica &r : replicas_) counters.push_back(r.counters);
  // One pass over the spool: what each replica still has to take, and since when.
  std::vector<uint64_t> waiting(n, 0);
  std::vector<int64_t> oldest(n, 0);
  for (const Entry &e : spool_) {
    for (size_t r = 0; r < n; ++r) {
      if ((e.pending & (1u << r)) == 0) continue;
      if (waiting[r]++ == 0) oldest[r] = e.spooledMs;
    }
  }
  ReplicaFamilies(&out, opt_.alertmanagers, counters, waiting, oldest, nowMs);

  const Counters &c = counters_;
  out.One("tevfwd_events_received_total", "counter", "Events from tevd decoded.", c.received);
  out.One("tevfwd_events_malformed_total", "counter", "Messages that did not decode.", c.malformed);
  out.One("tevfwd_alerts_sent_total", "counter", "Spool entries every replica took.", c.sent);
  out.One("tevfwd_alerts_resolved_total", "counter", "Firing alerts resolved by a clear.",
          c.resolved);
  out.One("tevfwd_alerts_expired_total", "counter",
          "Firing alerts ended by their lifetime, and stale entries found at start-up.", c.expired);
  out.One("tevfwd_alerts_unspooled_total", "counter",
          "Entries the spool directory could not take, kept in memory only.", c.unspooled);
  out.One("tevfwd_alerts_dropped_total", "counter",
          "Entries dropped: spool over its limit, unreadable, or refused by a replica.", c.dropped);
  out.One("tevfwd_alerts_capped_total", "counter",
          "Firing alerts not kept for re-sending: the active set was full.", c.capped);
  out.One("tevfwd_alerts_retimed_total", "counter",
          "Alerts whose time stamp was out of range and was replaced.", c.retimed);
  out.One("tevfwd_spool_alerts", "gauge", "Entries in the spool, waiting for some replica.",
          spool_.size());
  out.One("tevfwd_spool_bytes", "gauge", "Bytes of the entries in the spool.", spoolBytes_);
  // Every severity the catalogue has is listed, at 0 too, so a rule sees it.
  std::map<std::string, uint64_t> bySeverity = {{"critical", 0}, {"warning", 0}, {"info", 0}};
  for (const auto &kv : active_) {
    const nlohmann::json &labels = kv.second.alert["labels"];
    const auto s = labels.find("severity");
    ++bySeverity[s != labels.end() && s->is_string() ? s->get<std::string>() : "none"];
  }
  out.Family("tevfwd_active_alerts", "gauge",
             "Firing alerts re-sent to the replicas, by severity.");
  for (const auto &kv : bySeverity) {
    out.Sample("tevfwd_active_alerts", PromText::Labels("severity", kv.first), kv.second);
  }
  out.One("tevfwd_start_time_seconds", "gauge", "Time tevfwd started.",
          static_cast<uint64_t>(startedSec));
  out.One("tevfwd_pid", "gauge", "Process id of the tevfwd that wrote these counters.",
          static_cast<uint64_t>(getpid()));
  return out.text();
}

std::string Forwarder::CountersJson() const {
  const Counters &c = counters_;
  return json{{"received", c.received},   {"sent", c.sent},           {"resolved", c.resolved},
              {"spooled", c.spooled},     {"dropped", c.dropped},     {"expired", c.expired},
              {"malformed", c.malformed}, {"capped", c.capped},       {"retimed", c.retimed},
              {"waiting", spool_.size()}, {"active", active_.size()}, {"unspooled", c.unspooled}}
      .dump();
}

std::vector<std::string> Forwarder::TakeLogLines() {
  if (droppedUnlogged_ != 0) {
    log_.push_back("spool over " + std::to_string(opt_.spoolMaxBytes) + " bytes: dropped the " +
                   std::to_string(droppedUnlogged_) + " oldest alert(s)");
    droppedUnlogged_ = 0;
  }
  if (unspooledUnlogged_ != 0) {
    log_.push_back("cannot write the spool " + opt_.spoolDir + " (" + unspooledWhy_ +
                   "): " + std::to_string(unspooledUnlogged_) +
                   " alert(s) kept in memory only since the last report");
    unspooledUnlogged_ = 0;
  }
  if (cappedUnlogged_ != 0) {
    log_.push_back("active set full (" + std::to_string(opt_.activeMax) +
                   " firing alerts): " + std::to_string(cappedUnlogged_) +
                   " new alert(s) sent once, not re-sent; they end in Alertmanager after three "
                   "re-send intervals");
    cappedUnlogged_ = 0;
  }
  if (retimedUnlogged_ != 0) {
    log_.push_back(std::to_string(retimedUnlogged_) +
                   " event(s) with a time stamp out of range (before 2000 or over a day ahead) "
                   "sent with the time they arrived");
    retimedUnlogged_ = 0;
  }
  std::vector<std::string> out;
  out.swap(log_);
  return out;
}

}  // namespace tevfwd
