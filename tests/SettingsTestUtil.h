// Helpers of the tests of Settings: extension lists, and records whose
// members all differ from the defaults.
#ifndef QX_TESTS_SETTINGSTESTUTIL_H
#define QX_TESTS_SETTINGSTESTUTIL_H

#include "settings/Settings.h"

#include <initializer_list>
#include <string>

namespace qxtest {

// The accepted extensions of a default record, as JSON text.
constexpr char kDefaultSrvExtsText[] =
    R"(["pdf","ps","xps","oxps","xml","json","js","csv","xls","xlsx","ods","zip","tar","enm","qxw"])";

inline Settings::CfgFileExts exts(std::initializer_list<char const*> items) {
  Settings::CfgFileExts list;
  for (char const* item : items) list.append(json::Value(item));
  return list;
}

// A record built with the full constructor; every argument differs from the
// defaults.
inline Settings constructedRecord(std::string const& nodeId) {
  return Settings("acct-1", nodeId, 7, "PUBLIC-KEY", exts({"tmp", "noqx"}), exts({"pdf", "txt"}),
                  "/data/in", "/data/out", "srv.example.com", "alt.example.com", true,
                  "proxy.example.com:3128", true, true, true,
                  Inet::InetCfg::ProxyAuthMethod::Digest, "proxy-user", "proxy-pass", 86400,
                  "/data/backup", true, true, 3, true, "smtp://mail.example.com:587", "mail-user",
                  "mail-pass", true, true, true, "from@example.com", "to@example.com");
}

// A record with every member away from its default: constructedRecord("42"),
// and the five members that the full constructor has no parameter for.
inline Settings fullRecord() {
  Settings s = constructedRecord("42");
  s.ConcurrentUploads = 5;
  s.IpcPort = 5000;
  s.IpcForceIP4 = true;
  s.MaxConnIdleSecs = 120;
  s.EnableCurlDbgLog = true;
  return s;
}

}  // namespace qxtest

#endif  // QX_TESTS_SETTINGSTESTUTIL_H
