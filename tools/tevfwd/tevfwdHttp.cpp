// libcurl: one easy handle per replica in its own multi handle, so the
// connection is kept between posts and a request can be woken and abandoned
// the moment the forwarder stops, whatever the replica does.
#include "tevfwdHttp.h"

#include <curl/curl.h>

namespace tevfwd {

namespace {
size_t Discard(char *, size_t size, size_t n, void *) { return size * n; }
}  // namespace

void HttpInit() { curl_global_init(CURL_GLOBAL_DEFAULT); }

AlertPoster::AlertPoster(std::string baseUrl, const std::atomic<bool> *stop) : stop_(stop) {
  while (!baseUrl.empty() && baseUrl.back() == '/') baseUrl.pop_back();
  url_ = baseUrl + "/api/v2/alerts";
  curl_ = curl_easy_init();
  multi_ = curl_multi_init();
}

AlertPoster::~AlertPoster() {
  if (curl_ != nullptr) curl_easy_cleanup(static_cast<CURL *>(curl_));
  if (multi_ != nullptr) curl_multi_cleanup(static_cast<CURLM *>(multi_));
}

void AlertPoster::Wake() {
  if (multi_ != nullptr) curl_multi_wakeup(static_cast<CURLM *>(multi_));
}

long AlertPoster::Post(const std::string &body, long timeoutMs, std::string *why) {
  CURL *h = static_cast<CURL *>(curl_);
  CURLM *m = static_cast<CURLM *>(multi_);
  if (h == nullptr || m == nullptr) {
    *why = "libcurl could not make a handle";
    return -1;
  }
  struct curl_slist *headers = curl_slist_append(nullptr, "Content-Type: application/json");
  char err[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(h, CURLOPT_URL, url_.c_str());
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeoutMs);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs < 2000 ? timeoutMs : 2000L);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, Discard);
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, err);
  curl_multi_add_handle(m, h);
  CURLcode rc = CURLE_ABORTED_BY_CALLBACK;
  for (;;) {
    int running = 0;
    if (curl_multi_perform(m, &running) != CURLM_OK) {
      rc = CURLE_FAILED_INIT;
      break;
    }
    int left = 0;
    bool finished = false;
    while (CURLMsg *msg = curl_multi_info_read(m, &left)) {
      if (msg->msg == CURLMSG_DONE && msg->easy_handle == h) {
        rc = msg->data.result;
        finished = true;
      }
    }
    if (finished || running == 0) break;
    if (stop_ != nullptr && stop_->load()) break;  // rc stays "aborted"
    curl_multi_poll(m, nullptr, 0, 200, nullptr);
  }
  curl_multi_remove_handle(m, h);
  long status = -1;
  if (rc == CURLE_OK) {
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
  } else if (rc == CURLE_ABORTED_BY_CALLBACK) {
    *why = "abandoned: the forwarder is stopping";
  } else {
    *why = err[0] != '\0' ? err : curl_easy_strerror(rc);
  }
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, nullptr);
  curl_slist_free_all(headers);
  return status;
}

}  // namespace tevfwd
