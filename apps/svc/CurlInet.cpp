#include "apps/svc/CurlInet.h"

#include "shared/Log.h"

#include <strings.h>

#include <string>

namespace qxsvc {

namespace {

long curlAuth(Inet::InetCfg::ProxyAuthMethod method) {
  using M = Inet::InetCfg::ProxyAuthMethod;
  switch (method) {
    case M::Basic: return CURLAUTH_BASIC;
    case M::Digest: return CURLAUTH_DIGEST;
    case M::Ntlm: return CURLAUTH_NTLM;
    case M::Negotiate: return CURLAUTH_NEGOTIATE;
    case M::Any: return CURLAUTH_ANY;
    case M::None: break;
  }
  return CURLAUTH_NONE;
}

// Header lines whose value is a secret.
bool carriesCredentials(std::string const& line) {
  for (char const* name : {"authorization:", "proxy-authorization:"}) {
    std::size_t const length = std::char_traits<char>::length(name);
    if (line.size() >= length && ::strncasecmp(line.c_str(), name, length) == 0) return true;
  }
  return false;
}

int traceToLog(CURL*, curl_infotype type, char* data, std::size_t size, void* prefix) {
  if (type != CURLINFO_TEXT && type != CURLINFO_HEADER_IN && type != CURLINFO_HEADER_OUT) return 0;
  std::string text(data, size);
  boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
  // Outgoing headers arrive as one block: one log line per header line.
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
    if (line.empty()) continue;
    if (carriesCredentials(line)) line = line.substr(0, line.find(':') + 1) + " (not shown)";
    Log::inst().logStreamStartLine() << "TRACE:" << *static_cast<std::string const*>(prefix) << line
                                     << std::endl;
  }
  return 0;
}

}  // namespace

void applyInetCfg(CURL* h, Inet::InetCfg const& inet) {
  std::string const agent = "qxlite-svc/" + inet.version();
  curl_easy_setopt(h, CURLOPT_USERAGENT, agent.c_str());
  if (inet.insecureTls()) {
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 0L);
  }
  if (inet.useProxy()) {
    curl_easy_setopt(h, CURLOPT_PROXY, inet.proxyAddress().c_str());
    curl_easy_setopt(h, CURLOPT_PROXYTYPE, inet.proxySocks() ? CURLPROXY_SOCKS5_HOSTNAME : CURLPROXY_HTTP);
    curl_easy_setopt(h, CURLOPT_HTTPPROXYTUNNEL, inet.proxyTunnel() ? 1L : 0L);
    curl_easy_setopt(h, CURLOPT_PROXYAUTH, curlAuth(inet.proxyAuth()));
    if (!inet.proxyUser().empty()) {
      curl_easy_setopt(h, CURLOPT_PROXYUSERNAME, inet.proxyUser().c_str());
      curl_easy_setopt(h, CURLOPT_PROXYPASSWORD, inet.proxyPassword().c_str());
    }
  } else {
    curl_easy_setopt(h, CURLOPT_PROXY, "");  // no proxy from the environment either
  }
}

void traceCurlToLog(CURL* h, std::string const* prefix) {
  curl_easy_setopt(h, CURLOPT_VERBOSE, 1L);
  curl_easy_setopt(h, CURLOPT_DEBUGFUNCTION, traceToLog);
  curl_easy_setopt(h, CURLOPT_DEBUGDATA, const_cast<std::string*>(prefix));
}

namespace {

int abandonWhenAsked(void* abandoned, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return (*static_cast<std::function<bool()> const*>(abandoned))() ? 1 : 0;
}

}  // namespace

void abandonWhen(CURL* handle, std::function<bool()> const* abandoned) {
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, abandonWhenAsked);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, abandoned);
}

}  // namespace qxsvc
