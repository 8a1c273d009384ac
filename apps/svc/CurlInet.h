// The settings of an Inet::InetCfg that every libcurl request of the service
// takes: its proxy (or none, not even from the environment), whether TLS
// certificates are checked, and the program's user agent; and libcurl's
// own debug output as TRACE lines of the log.
//
// The functions may run on any thread, each on a handle that thread owns.
#ifndef QX_APPS_SVC_CURLINET_H
#define QX_APPS_SVC_CURLINET_H

#include "shared/InetCfg.h"

#include <curl/curl.h>

#include <functional>
#include <string>

namespace qxsvc {

// Sets the proxy, TLS and user-agent options of inet on handle (libcurl
// copies the texts).
void applyInetCfg(CURL* handle, Inet::InetCfg const& inet);

// Sends libcurl's debug output of handle to the log as TRACE lines that
// begin with prefix (which must outlive the handle). Header lines that carry
// credentials (Authorization, Proxy-Authorization) show their name only.
void traceCurlToLog(CURL* handle, std::string const* prefix);

// Ends the request of handle with CURLE_ABORTED_BY_CALLBACK soon (libcurl
// asks at least about once a second) after abandoned turns true; abandoned
// must outlive the request.
void abandonWhen(CURL* handle, std::function<bool()> const* abandoned);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_CURLINET_H
