// POST of an alert array to one Alertmanager's /api/v2/alerts.
#pragma once

#include <atomic>
#include <string>

namespace tevfwd {

class AlertPoster {
 public:
  // `stop` set (and Wake called) aborts a request under way.
  AlertPoster(std::string baseUrl, const std::atomic<bool> *stop);
  ~AlertPoster();
  AlertPoster(const AlertPoster &) = delete;
  AlertPoster &operator=(const AlertPoster &) = delete;
  // The HTTP status, or -1 with `why` when no answer came (bounded by
  // `timeoutMs`, or cut short by `stop`).
  long Post(const std::string &body, long timeoutMs, std::string *why);
  // From any thread: a Post under way looks at `stop` now.
  void Wake();
  const std::string &url() const { return url_; }

 private:
  std::string url_;
  const std::atomic<bool> *stop_;
  void *curl_ = nullptr;
  void *multi_ = nullptr;
};

// curl_global_init, once per process, before any thread starts.
void HttpInit();

}  // namespace tevfwd
