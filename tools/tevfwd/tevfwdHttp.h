// POST of an alert array to one Alertmanager's /api/v2/alerts.
#pragma once

#include <string>

namespace tevfwd {

class AlertPoster {
 public:
  explicit AlertPoster(std::string baseUrl);
  ~AlertPoster();
  AlertPoster(const AlertPoster &) = delete;
  AlertPoster &operator=(const AlertPoster &) = delete;
  // The HTTP status, or -1 with `why` when no answer came (bounded by
  // `timeoutMs`).
  long Post(const std::string &body, long timeoutMs, std::string *why);
  const std::string &url() const { return url_; }

 private:
  std::string url_;
  void *curl_ = nullptr;
};

// curl_global_init, once per process, before any thread starts.
void HttpInit();

}  // namespace tevfwd
