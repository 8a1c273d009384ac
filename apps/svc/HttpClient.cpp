#include "apps/svc/HttpClient.h"

#include "apps/svc/CurlInet.h"

#include <curl/curl.h>

#include <memory>
#include <utility>

namespace qxsvc {

namespace {

std::size_t collect(char* data, std::size_t size, std::size_t count, void* out) {
  auto* body = static_cast<std::string*>(out);
  // An answer larger than 16 MiB is cut off: it could not travel back anyway.
  if (body->size() + size * count > (std::size_t(16) << 20)) return 0;
  body->append(data, size * count);
  return size * count;
}

}  // namespace

std::vector<std::string> serverAddresses(Inet::InetCfg const& inet) {
  std::vector<std::string> addresses{inet.serverAddress()};
  if (!inet.altServerAddress().empty() && inet.altServerAddress() != inet.serverAddress()) {
    addresses.push_back(inet.altServerAddress());
  }
  return addresses;
}

void HttpClient::globalInit() { curl_global_init(CURL_GLOBAL_DEFAULT); }

HttpClient::HttpClient(Inet::InetCfg const& inet, bool debugLog, long timeoutSecs,
                       std::function<bool()> abandoned)
    : m_inet(inet), m_debugLog(debugLog), m_timeoutSecs(timeoutSecs), m_abandoned(std::move(abandoned)) {}

HttpResult HttpClient::postJson(std::string const& url, std::string const& body) const {
  return perform(url, &body);
}

HttpResult HttpClient::get(std::string const& url) const { return perform(url, nullptr); }

HttpResult HttpClient::perform(std::string const& url, std::string const* postBody) const {
  HttpResult result;
  std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  if (!curl) {
    result.error = "libcurl could not start a request";
    return result;
  }
  CURL* h = curl.get();
  char errorText[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_TIMEOUT, m_timeoutSecs);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, std::min(m_timeoutSecs, 10L));
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &result.body);
  applyInetCfg(h, m_inet);
  if (m_abandoned) abandonWhen(h, &m_abandoned);
  if (m_debugLog) {
    static std::string const kPrefix = "curl ";
    traceCurlToLog(h, &kPrefix);
  }
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers(nullptr, curl_slist_free_all);
  if (postBody) {
    headers.reset(curl_slist_append(nullptr, "Content-Type: application/json"));
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, postBody->c_str());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(postBody->size()));
  }
  CURLcode const code = curl_easy_perform(h);
  if (code == CURLE_ABORTED_BY_CALLBACK) {
    result.error = "the request was abandoned";
    return result;
  }
  if (code != CURLE_OK) {
    result.error = errorText[0] ? errorText : curl_easy_strerror(code);
    return result;
  }
  result.transferred = true;
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &result.status);
  return result;
}

}  // namespace qxsvc
