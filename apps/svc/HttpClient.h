// HTTP requests of the service to the upload server, through libcurl, with
// the proxy settings of an Inet::InetCfg.
//
// Each call is independent and may run on any thread (curl_global_init must
// have run once first: see HttpClient::globalInit). A call ends when its
// time-out passes, or soon (within about a second) after abandoned() turns
// true, with the error "the request was abandoned".
#ifndef QX_APPS_SVC_HTTPCLIENT_H
#define QX_APPS_SVC_HTTPCLIENT_H

#include "shared/InetCfg.h"

#include <functional>
#include <string>
#include <vector>

namespace qxsvc {

struct HttpResult {
  bool transferred = false;  // an HTTP answer arrived
  long status = 0;           // its status code
  std::string body;
  std::string error;         // what went wrong when nothing arrived
};

// The addresses to try, in order: the server address, then the alternative
// one when it is set and differs.
std::vector<std::string> serverAddresses(Inet::InetCfg const& inet);

class HttpClient {
 public:
  // Once per process, before any thread makes a request.
  static void globalInit();

  // debugLog: libcurl's own trace goes to the log as TRACE lines.
  // abandoned: asked while a request runs (on its thread); empty: never.
  HttpClient(Inet::InetCfg const& inet, bool debugLog, long timeoutSecs,
             std::function<bool()> abandoned = {});

  // POSTs body (JSON) to url.
  HttpResult postJson(std::string const& url, std::string const& body) const;
  // GETs url (answers at all?).
  HttpResult get(std::string const& url) const;

 private:
  HttpResult perform(std::string const& url, std::string const* postBody) const;

  Inet::InetCfg const m_inet;
  bool const m_debugLog;
  long const m_timeoutSecs;
  std::function<bool()> const m_abandoned;
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_HTTPCLIENT_H
