// libcurl: one easy handle per replica, so the connection is kept between
// posts.
#include "tevfwdHttp.h"

#include <curl/curl.h>

namespace tevfwd {

namespace {
size_t Discard(char *, size_t size, size_t n, void *) { return size * n; }
}  // namespace

void HttpInit() { curl_global_init(CURL_GLOBAL_DEFAULT); }

AlertPoster::AlertPoster(std::string baseUrl) {
  while (!baseUrl.empty() && baseUrl.back() == '/') baseUrl.pop_back();
  url_ = baseUrl + "/api/v2/alerts";
  curl_ = curl_easy_init();
}

AlertPoster::~AlertPoster() {
  if (curl_ != nullptr) curl_easy_cleanup(static_cast<CURL *>(curl_));
}

long AlertPoster::Post(const std::string &body, long timeoutMs, std::string *why) {
  CURL *h = static_cast<CURL *>(curl_);
  if (h == nullptr) {
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
  CURLcode rc = curl_easy_perform(h);
  long status = -1;
  if (rc == CURLE_OK) {
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
  } else {
    *why = err[0] != '\0' ? err : curl_easy_strerror(rc);
  }
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, nullptr);
  curl_slist_free_all(headers);
  return status;
}

}  // namespace tevfwd
