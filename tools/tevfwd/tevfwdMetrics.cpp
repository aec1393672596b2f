// The forwarder's counters file, in the style of tevd's and tevnet's
// (docs/metrics.md): one label set per replica, by the URL it was given.
#include <unistd.h>

#include <map>

#include "PromText.h"
#include "tevfwdCore.h"

namespace tevfwd {

std::string Forwarder::MetricsText(int64_t nowMs, int64_t startedSec) const {
  PromText out;
  const size_t n = replicas_.size();
  auto perReplica = [&](const char *name, const char *type, const char *help, auto value) {
    out.Family(name, type, help);
    for (size_t r = 0; r < n; ++r) {
      out.Sample(name, PromText::Labels("replica", opt_.alertmanagers[r]), value(r));
    }
  };
  auto counter = [&](const char *name, const char *help, uint64_t ReplicaCounters::*what) {
    perReplica(name, "counter", help, [&](size_t r) { return replicas_[r].counters.*what; });
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
             [&](size_t r) { return uint64_t{replicas_[r].counters.up}; });
  // One pass over the spool: what each replica still has to take, and since when.
  std::vector<uint64_t> waiting(n, 0);
  std::vector<int64_t> oldest(n, 0);
  for (const Entry &e : spool_) {
    for (size_t r = 0; r < n; ++r) {
      if ((e.pending & (1u << r)) == 0) continue;
      if (waiting[r]++ == 0) oldest[r] = e.spooledMs;
    }
  }
  perReplica("tevfwd_replica_queue_alerts", "gauge", "Spool entries the replica has yet to take.",
             [&](size_t r) { return waiting[r]; });
  perReplica("tevfwd_replica_queue_age_seconds", "gauge",
             "Age of the oldest spool entry the replica has yet to take (0: none).", [&](size_t r) {
               return waiting[r] == 0 || nowMs <= oldest[r]
                          ? uint64_t{0}
                          : static_cast<uint64_t>((nowMs - oldest[r]) / 1000);
             });

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

}  // namespace tevfwd
