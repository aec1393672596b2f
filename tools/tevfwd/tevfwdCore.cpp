// Events to alert entries, the active set, the spool and its files.
#include "tevfwdCore.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "PlatformFile.h"
#include "tevfwdEvents.h"

namespace tevfwd {

using nlohmann::json;

// A reader (or a restart after a crash) sees the old file or the new one,
// never half.
bool WriteFileAtomic(const std::string &path, const std::string &data);

namespace {

bool WriteFileAtomicImpl(const std::string &path, const std::string &data) {
  std::string tmp = path + ".tmp";
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) return false;
  size_t off = 0;
  while (off < data.size()) {
    ssize_t n = write(fd, data.data() + off, data.size() - off);
    if (n <= 0) {
      int err = n < 0 ? errno : ENOSPC;
      close(fd);
      unlink(tmp.c_str());
      errno = err;
      return false;
    }
    off += static_cast<size_t>(n);
  }
  if (close(fd) != 0 || rename(tmp.c_str(), path.c_str()) != 0) {
    int err = errno;
    unlink(tmp.c_str());
    errno = err;
    return false;
  }
  return true;
}

}  // namespace

bool WriteFileAtomic(const std::string &path, const std::string &data) {
  return WriteFileAtomicImpl(path, data);
}

namespace {

// A spool entry is one alert (a few KiB at most); the active set is every
// firing alert, bounded in practice by the spool's own limit.
constexpr size_t kEntryCap = 1u << 20;
constexpr size_t kActiveCap = 64u << 20;

bool ReadFile(const std::string &path, size_t cap, std::string *out) {
  return PlatformFile_Read(path, cap, out) == PlatformFileStatus::Ok;
}

// Everything the forwarder later reads of an alert from disk: whatever else
// a damaged or hand-made file holds, these keys are there with these types
// (the ones an old file may lack are added empty), so that no lookup on a
// const alert meets a missing key.
bool WellFormed(json *a) {
  if (!a->is_object() || !a->contains("labels") || !a->at("labels").is_object() ||
      !a->value("startsAt", json()).is_number() || !a->value("endsAt", json()).is_number()) {
    return false;
  }
  if (!a->contains("annotations") || !a->at("annotations").is_object())
    (*a)["annotations"] = json::object();
  if (!a->contains("args") || !a->at("args").is_array()) (*a)["args"] = json::array();
  return true;
}

// Spool names are 16 digits; longer ones (up to 19, all a 64-bit counter
// can spell) come from a counter pushed past 16 digits and are still read.
bool SpoolName(const std::string &name, uint64_t *seq) {
  size_t digits = name.size() - 5;
  if (name.size() < 21 || name.size() > 24 || name.compare(digits, 5, ".json") != 0 ||
      name.find_first_not_of("0123456789") != digits) {
    return false;
  }
  *seq = std::stoull(name.substr(0, digits));
  return true;
}

bool EndsWith(const std::string &s, const char *tail) {
  size_t n = strlen(tail);
  return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

// Arguments are the producers' bytes: text that is not UTF-8 is sent with
// replacement characters rather than refused.
// The spool's entries in their order: (number, file name). Removes what a
// crash left half written: its entry was never accepted.
std::vector<std::pair<uint64_t, std::string>> SpoolFiles(const std::string &dir) {
  std::vector<std::pair<uint64_t, std::string>> files;
  if (DIR *d = opendir(dir.c_str())) {
    while (struct dirent *de = readdir(d)) {
      std::string name = de->d_name;
      uint64_t seq = 0;
      if (SpoolName(name, &seq)) {
        files.emplace_back(seq, name);
      } else if (EndsWith(name, ".tmp")) {
        unlink((dir + "/" + name).c_str());
      }
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string Dump(const json &j) { return j.dump(-1, ' ', false, json::error_handler_t::replace); }

bool IsFiring(const json &alert) { return alert.value("endsAt", int64_t{0}) == 0; }

}  // namespace

int64_t LifetimeMs(const json &alert, const Options &opt) {
  const json &labels = alert["labels"];
  const auto name = labels.find("alertname");
  if (name == labels.end() || !name->is_string()) return opt.lifetimeMs;
  const TevdEventInfo *ev = TevdEvents_Find(name->get<std::string>().c_str());
  return ev != nullptr && ev->resolution == TevdResolution::Lifetime
             ? int64_t{ev->lifetimeSec} * 1000
             : opt.lifetimeMs;
}

namespace {

// Alertmanager refuses a request with one time it cannot take (a year past
// 9999, an end before the start), so every time leaves in range: from 2000
// to a day ahead of this host's clock.
constexpr int64_t kEarliestMs = 946684800000;  // 2000-01-01
constexpr int64_t kAheadMs = 86400000;

bool TimeInRange(int64_t ms, int64_t nowMs) { return ms >= kEarliestMs && ms <= nowMs + kAheadMs; }

}  // namespace

bool FixTimes(json *alert, int64_t nowMs, const Options &opt) {
  const json &starts = (*alert)["startsAt"];
  const json &ends = (*alert)["endsAt"];
  if (!starts.is_number_integer() || !ends.is_number_integer()) {
    (*alert)["startsAt"] = nowMs;
    (*alert)["endsAt"] = 0;
    return true;
  }
  int64_t s = starts.get<int64_t>(), e = ends.get<int64_t>();
  if (TimeInRange(s, nowMs) && (e == 0 || (e > s && e <= s + 2 * kAheadMs))) return false;
  (*alert)["startsAt"] = nowMs;
  if (e != 0) (*alert)["endsAt"] = nowMs + opt.auditLifetimeMs;
  return true;
}

std::string Fingerprint(const json &labels) { return Dump(labels); }

std::string Rfc3339(int64_t ms) {
  time_t secs = static_cast<time_t>(ms / 1000);
  struct tm tm;
  gmtime_r(&secs, &tm);
  char buf[64];
  snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
           tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms % 1000));
  return buf;
}

Forwarder::Forwarder(Options opt) : opt_(std::move(opt)) {
  size_t n = std::min<size_t>(opt_.alertmanagers.size(), 32);
  allReplicas_ = n >= 32 ? 0xffffffffu : (1u << n) - 1u;
  replicas_.resize(n);
}

std::string Forwarder::EntryPath(uint64_t seq) const {
  char name[32];
  snprintf(name, sizeof name, "/%016llu.json", static_cast<unsigned long long>(seq));
  return opt_.spoolDir + name;
}

void Forwarder::Accept(const QprobMessage &msg, int64_t nowMs) {
  ++counters_.received;
  const TevdEventInfo *ev = TevdEvents_Find(msg.id.c_str());
  std::vector<std::string> names = ArgLabelNames(ev, msg.args.size());
  json labels = json::object();
  for (size_t i = 0; i < msg.args.size(); ++i) labels[names[i]] = LabelValue(ArgText(msg.args[i]));
  Resolve(msg, labels, nowMs);

  const bool problem = msg.className == "problem";
  const bool audit = msg.className == "audit";
  // Recoveries, clears and unknown classes end alerts at most; audits are
  // alerts only when asked for.
  if ((ev != nullptr && ev->resolution == TevdResolution::Recovery) ||
      !(problem || (audit && opt_.audits))) {
    return;
  }
  const bool oneShot = ev != nullptr ? ev->resolution == TevdResolution::OneShot : audit;
  labels["alertname"] = msg.id;
  labels["host"] = msg.hostUuid;
  labels["instance"] = opt_.hostName;
  labels["class"] = msg.className;
  labels["severity"] = ev != nullptr ? TevdEvents_SeverityName(ev->severity)
                       : audit       ? "info"
                                     : "warning";
  json annotations = {{"description", Describe(msg.id, msg.args)}};
  if (ev != nullptr) {
    annotations["summary"] = ev->summary;
    if (!opt_.runbookUrl.empty()) annotations["runbook_url"] = opt_.runbookUrl + msg.id;
  }
  int64_t startsAt = msg.timestampUs != 0 ? static_cast<int64_t>(msg.timestampUs / 1000) : nowMs;
  json alert = {{"labels", labels},
                {"annotations", annotations},
                {"startsAt", startsAt},
                {"endsAt", oneShot ? startsAt + opt_.auditLifetimeMs : 0}};
  if (FixTimes(&alert, nowMs, opt_)) {
    ++counters_.retimed;
    ++retimedUnlogged_;
  }
  Apply(alert);
  Push(std::move(alert), nowMs);
}

void Forwarder::Apply(const json &alert) {
  const json &labels = alert["labels"];
  std::string key = Fingerprint(labels);
  if (IsFiring(alert)) {
    auto it = active_.find(key);
    int64_t startsAt = alert.value("startsAt", int64_t{0});
    if (it == active_.end()) {
      if (active_.size() >= opt_.activeMax) {
        // Sent once through the spool; without re-sends it ends in
        // Alertmanager three intervals later.
        ++counters_.capped;
        ++cappedUnlogged_;
        return;
      }
      active_[key] = Active{alert, startsAt};
    } else {
      it->second.alert["annotations"] = alert["annotations"];
    }
    activeDirty_ = true;
  } else if (labels.value("class", "") == "problem") {
    activeDirty_ |= active_.erase(key) != 0;
  }
}

// Resolution follows the object: every firing alert of this host whose row
// names `msg` as a clearing event and whose object labels are covered by the
// same labels of `msg` ends, whichever NIC or path either names.
void Forwarder::Resolve(const QprobMessage &msg, const json &labels, int64_t nowMs) {
  std::vector<std::string> ended;
  for (const TevdEventInfo *problem : Resolves(msg.id)) {
    const std::vector<std::string> object = TevdEvents_Words(problem->object);
    for (const auto &kv : active_) {
      const json &alertLabels = kv.second.alert["labels"];
      if (alertLabels.value("alertname", "") != problem->id ||
          alertLabels.value("host", "") != msg.hostUuid) {
        continue;
      }
      bool same = true;
      for (size_t k = 0; k < object.size() && same; ++k) {
        const std::string &name = object[k];
        same = alertLabels.contains(name) && labels.contains(name) &&
               alertLabels[name].is_string() && labels[name].is_string() &&
               ItemsCovered(alertLabels[name].get<std::string>(), labels[name].get<std::string>());
      }
      if (same) ended.push_back(kv.first);
    }
  }
  for (const std::string &key : ended) {
    EndAlert(key, nowMs);
    ++counters_.resolved;
  }
}

void Forwarder::EndAlert(const std::string &key, int64_t nowMs) {
  auto it = active_.find(key);
  if (it == active_.end()) return;
  json alert = it->second.alert;
  alert["endsAt"] = std::max(nowMs, it->second.startsAtMs + 1);
  active_.erase(it);
  activeDirty_ = true;
  Push(std::move(alert), nowMs);
}

void Forwarder::Tick(int64_t nowMs) {
  std::vector<std::string> old;
  for (const auto &kv : active_) {
    if (kv.second.startsAtMs + LifetimeMs(kv.second.alert, opt_) <= nowMs) {
      old.push_back(kv.first);
    }
  }
  for (const std::string &key : old) {
    EndAlert(key, nowMs);
    ++counters_.expired;
  }
}

void Forwarder::CountLost(uint32_t pending, uint64_t ReplicaCounters::*what) {
  for (size_t r = 0; r < replicas_.size(); ++r) {
    if ((pending & (1u << r)) != 0) ++(replicas_[r].counters.*what);
  }
}

void Forwarder::Push(json alert, int64_t nowMs) {
  Entry e;
  e.seq = nextSeq_++;
  e.spooledMs = nowMs;
  for (Replica &rep : replicas_) ++rep.counters.spooled;
  e.pending = allReplicas_;
  std::string text = Dump(alert);
  e.bytes = text.size();
  e.alert = std::move(alert);
  if (!opt_.spoolDir.empty()) {
    e.onDisk = WriteFileAtomic(EntryPath(e.seq), text);
    if (!e.onDisk) {
      // A full or read-only spool: the entry lives in memory only, and is
      // counted as such, not as spooled (a crash would lose it). One line
      // per log interval says how many (TakeLogLines).
      ++counters_.unspooled;
      ++unspooledUnlogged_;
      unspooledWhy_ = strerror(errno);
    }
  }
  if (e.onDisk || opt_.spoolDir.empty()) ++counters_.spooled;
  spoolBytes_ += e.bytes;
  spool_.push_back(std::move(e));
  while (spoolBytes_ > opt_.spoolMaxBytes && spool_.size() > 1) {
    Entry &old = spool_.front();
    if (old.onDisk) unlink(EntryPath(old.seq).c_str());
    CountLost(old.pending, &ReplicaCounters::dropped);
    spoolBytes_ -= old.bytes;
    spool_.pop_front();
    ++counters_.dropped;
    ++droppedUnlogged_;
  }
}

void Forwarder::SaveActive() {
  if (!activeDirty_ || opt_.spoolDir.empty()) return;
  json all = json::array();
  for (const auto &kv : active_) all.push_back(kv.second.alert);
  if (WriteFileAtomic(opt_.spoolDir + "/active.json", Dump(all))) {
    activeDirty_ = false;
  } else {
    log_.push_back("cannot write " + opt_.spoolDir + "/active.json");
  }
}

void Forwarder::LoadActive(int64_t nowMs) {
  std::string text;
  if (ReadFile(opt_.spoolDir + "/active.json", kActiveCap, &text)) {
    json all = json::parse(text, nullptr, false);
    if (all.is_array()) {
      for (json &a : all) {
        try {
          if (WellFormed(&a)) {
            FixTimes(&a, nowMs, opt_);
            Apply(a);
          }
        } catch (const std::exception &e) {
          log_.push_back(std::string("ignoring an alert of active.json: ") + e.what());
        }
      }
    } else {
      log_.push_back("ignoring unreadable " + opt_.spoolDir + "/active.json");
    }
  }
  recoveredFiring_ = active_.size();
}

size_t Forwarder::Recover(int64_t nowMs) {
  // Every replica is sent the firing alerts at once: whatever it lost while
  // the forwarder was away.
  for (Replica &rep : replicas_) rep.nextResendMs = nowMs;
  if (opt_.spoolDir.empty()) return 0;
  LoadActive(nowMs);
  std::string text;
  size_t recovered = 0;
  for (const auto &f : SpoolFiles(opt_.spoolDir)) {
    const std::string path = opt_.spoolDir + "/" + f.second;
    json alert;
    if (ReadFile(path, kEntryCap, &text)) alert = json::parse(text, nullptr, false);
    if (!WellFormed(&alert)) {
      log_.push_back("dropping unreadable spool entry " + path);
      unlink(path.c_str());
      ++counters_.dropped;
      CountLost(allReplicas_, &ReplicaCounters::dropped);
      continue;
    }
    // An end Alertmanager has reached by itself (the firing alert it ends was
    // sent with an end three intervals ahead) has nothing left to tell.
    const int64_t endsAt = alert["endsAt"].get<int64_t>();
    if (endsAt != 0 && endsAt + 3 * opt_.resendMs < nowMs) {
      unlink(path.c_str());
      ++counters_.expired;
      CountLost(allReplicas_, &ReplicaCounters::expired);
      continue;
    }
    FixTimes(&alert, nowMs, opt_);
    // The entry is the newer word on its alert than the saved active set.
    try {
      Apply(alert);
    } catch (const std::exception &e) {
      log_.push_back("dropping spool entry " + path + ": " + e.what());
      unlink(path.c_str());
      ++counters_.dropped;
      CountLost(allReplicas_, &ReplicaCounters::dropped);
      continue;
    }
    // Entries are numbered afresh from 1 in their order, so names keep
    // their 16 digits whatever number a file (or a hand) left behind.
    // Its age counts from when the last run spooled it.
    struct stat st;
    Entry e;
    e.spooledMs = stat(path.c_str(), &st) == 0 ? int64_t{st.st_mtime} * 1000 : nowMs;
    e.seq = nextSeq_++;
    if (EntryPath(e.seq) != path && rename(path.c_str(), EntryPath(e.seq).c_str()) != 0) {
      log_.push_back("cannot rename the spool entry " + path + ": " + strerror(errno));
      e.seq = f.first;  // stays where it is, sent from memory; never renamed over
      nextSeq_ = std::max(nextSeq_, f.first + 1);
    }
    e.pending = allReplicas_;
    e.onDisk = true;
    e.bytes = text.size();
    e.alert = std::move(alert);
    spoolBytes_ += e.bytes;
    spool_.push_back(std::move(e));
    ++recovered;
  }
  return recovered;
}

}  // namespace tevfwd
