// What each replica is sent: its spool entries, then its re-sends of the
// firing alerts, rendered as Alertmanager takes them.
#include <unistd.h>

#include <algorithm>

#include "tevfwdCore.h"

namespace tevfwd {

using nlohmann::json;

std::vector<Forwarder::Item> Forwarder::Take(size_t r, size_t max, int64_t nowMs) {
  std::vector<Item> out;
  if (r >= replicas_.size()) return out;
  for (const Entry &e : spool_) {
    if (out.size() >= max) return out;
    if ((e.pending & (1u << r)) != 0) out.push_back({e.seq, "", Render(e.alert, opt_, nowMs)});
  }
  Replica &rep = replicas_[r];
  if (rep.nextResendMs == 0) rep.nextResendMs = nowMs + opt_.resendMs;  // nothing sent yet
  if (rep.resend.empty() && nowMs >= rep.nextResendMs) {
    rep.nextResendMs = nowMs + opt_.resendMs;
    for (const auto &kv : active_) rep.resend.push_back(kv.first);
  }
  for (auto it = rep.resend.begin(); it != rep.resend.end() && out.size() < max;) {
    auto a = active_.find(*it);
    if (a == active_.end()) {  // resolved or expired since: its end went through the spool
      it = rep.resend.erase(it);
      continue;
    }
    out.push_back({0, *it, Render(a->second.alert, opt_, nowMs)});
    ++it;
  }
  return out;
}

void Forwarder::Done(size_t r, const std::vector<Item> &items, bool refused) {
  if (r >= replicas_.size()) return;
  std::vector<uint64_t> seqs;
  std::deque<std::string> &resend = replicas_[r].resend;
  for (const Item &it : items) {
    if (it.seq != 0) {
      seqs.push_back(it.seq);
    } else {
      auto k = std::find(resend.begin(), resend.end(), it.key);
      if (k != resend.end()) resend.erase(k);
    }
  }
  ReplicaCounters &rc = replicas_[r].counters;
  rc.up = true;  // a refusal is an answer too
  if (refused) {
    counters_.dropped += items.size();
    rc.dropped += items.size();
  } else {
    for (const Item &it : items) ++(it.seq != 0 ? rc.sent : rc.resent);
  }
  std::sort(seqs.begin(), seqs.end());
  bool delivered = false;
  for (Entry &e : spool_) {
    if (std::binary_search(seqs.begin(), seqs.end(), e.seq)) e.pending &= ~(1u << r);
    delivered = delivered || e.pending == 0;
  }
  // The active set is saved before a spool entry that changed it goes: a
  // forwarder killed in between would otherwise start again from an
  // active.json without that change, and bring back an alert whose end every
  // replica had (or lose one that began).
  if (delivered) SaveActive();
  for (auto it = spool_.begin(); it != spool_.end();) {
    if (it->pending != 0) {
      ++it;
      continue;
    }
    if (it->onDisk) unlink(EntryPath(it->seq).c_str());
    if (!refused || !std::binary_search(seqs.begin(), seqs.end(), it->seq)) ++counters_.sent;
    spoolBytes_ -= it->bytes;
    it = spool_.erase(it);
  }
}

void Forwarder::Failed(size_t r) {
  if (r >= replicas_.size()) return;
  ++replicas_[r].counters.failed;
  replicas_[r].counters.up = false;
}

std::string Forwarder::Body(const std::vector<Item> &items, size_t begin, size_t end) {
  std::string body = "[";
  for (size_t i = begin; i < end && i < items.size(); ++i) {
    if (i != begin) body += ',';
    body += items[i].text;
  }
  return body + "]";
}

std::string Forwarder::Render(const json &alert, const Options &opt, int64_t nowMs) {
  json a = alert;
  FixTimes(&a, nowMs, opt);
  int64_t startsAt = a.value("startsAt", int64_t{0});
  int64_t endsAt = a.value("endsAt", int64_t{0});
  if (endsAt == 0) {
    // Three re-send intervals: a forwarder that stops re-sending lets its
    // alerts resolve in Alertmanager instead of firing forever.
    endsAt =
        std::max(startsAt + 1, std::min(nowMs + 3 * opt.resendMs, startsAt + LifetimeMs(a, opt)));
  }
  return json({{"labels", a["labels"]},
               {"annotations", a.value("annotations", json::object())},
               {"startsAt", Rfc3339(startsAt)},
               {"endsAt", Rfc3339(endsAt)}})
      .dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace tevfwd
