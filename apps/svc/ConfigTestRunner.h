// The service's test of a configuration: one check per step, each producing
// its result lines (with the prefixes of ipc/MsgsUItoSvc.h) so that the user
// interface sees the test progress.
//
// Checks: the configuration's values are accepted; each spool folder is
// allowed, exists or can be made, and can be written; no two folders are the
// same or inside one another; the extension lists hold texts only; the IPC
// port can be bound (unless it is the one this service uses); the server
// addresses answer; the SMTP URL is well formed; the backup expiry is
// sensible. Nothing is created or changed by the test: whether a folder can
// be written, or made in its parent, is asked of the system for the
// service's effective ids (faccessat with AT_EACCESS), never tried; a folder
// is refused by the same rules as SaveCfg applies (SpoolPolicy.h).
#ifndef QX_APPS_SVC_CONFIGTESTRUNNER_H
#define QX_APPS_SVC_CONFIGTESTRUNNER_H

#include "ipc/IpcCmdsLite.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qxsvc {

class ConfigTestRunner : public Ipc::TestCfg::TestRunnerI {
 public:
  // cmd owns the runner; servicePort is the port this service listens on.
  ConfigTestRunner(Ipc::TestCfg& cmd, std::uint16_t servicePort, long httpTimeoutSecs);
  bool runStep() override;

  // Whether the test found an error (a line with the error prefix).
  bool failed() const { return m_failed; }

 private:
  void pass(std::string const& text);
  void warn(std::string const& text);
  void error(std::string const& text, std::string const& why);

  void checkValues();
  void checkFolder(std::size_t index);
  void checkDistinct();
  void checkExtensionLists();
  void checkPort();
  void checkServers();
  void checkSmtp();
  void checkBackup();

  Ipc::TestCfg& m_cmd;
  std::uint16_t const m_servicePort;
  long const m_httpTimeoutSecs;
  Settings const m_settings;
  std::vector<std::function<void()>> m_steps;
  std::size_t m_next = 0;
  bool m_failed = false;
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_CONFIGTESTRUNNER_H
