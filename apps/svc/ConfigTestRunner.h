// The service's test of a configuration: one check per step, each producing
// its result lines (with the prefixes of ipc/MsgsUItoSvc.h) so that the user
// interface sees the test progress.
//
// Checks: the configuration's values are accepted; each spool folder is
// allowed, exists or can be made, and can be written; no two folders are the
// same or inside one another; the extension lists hold texts only; the IPC
// port can be bound (unless it is the one this service uses); each server
// address answers and accepts the service's upload account (asked without
// storing anything: UploadEngine.h, checkAccount()); the SMTP URL is well formed; the backup expiry is
// sensible. The server checks run on a worker of the service's own when a
// pool is given (the response waits for them, see Ipc::DeferredResponse),
// else on the caller's thread. Nothing is created or changed by the test: whether a folder can
// be written, or made in its parent, is asked of the system for the
// service's effective ids (faccessat with AT_EACCESS), never tried; a folder
// is refused by the same rules as SaveCfg applies (SpoolPolicy.h).
#ifndef QX_APPS_SVC_CONFIGTESTRUNNER_H
#define QX_APPS_SVC_CONFIGTESTRUNNER_H

#include "apps/svc/WorkerPool.h"
#include "apps/svc/upload/UploadEngine.h"
#include "apps/svc/notify/MailSender.h"
#include "ipc/IpcCmdsLite.h"

#include <boost/filesystem/path.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qxsvc {

// The port this service listens on, and whether its --port option chose it
// (the configuration's port is then not used).
struct ServicePort {
  std::uint16_t port = 0;
  bool portFromCommandLine = false;
};

class ConfigTestRunner : public Ipc::TestCfg::TestRunnerI {
 public:
  // The outcome of one check, made where it cannot be queued yet (on a
  // worker): applied later with report().
  struct Finding {
    enum class Kind { pass, warn, error };
    Kind kind;
    std::string text;
    std::string why;  // of an error
  };

  // cmd owns the runner; workers, when given, runs the server checks and
  // must outlive the server that dispatches the command. credentialsFile:
  // the upload account that the servers are asked about. With mail (and
  // workers) a well-formed SMTP URL is also tried: greeting, EHLO, STARTTLS
  // when required, and the login, sending nothing.
  ConfigTestRunner(Ipc::TestCfg& cmd, ServicePort service, boost::filesystem::path credentialsFile,
                   long httpTimeoutSecs, WorkerPool* workers = nullptr, MailSenderOptions const* mail = nullptr);
  bool runStep() override;
  bool waiting() const override { return m_waiting; }

  // Whether the test found an error (a line with the error prefix).
  bool failed() const { return m_failed; }

 private:
  // The line about one server's answer to the account's check.
  static Finding accountFinding(std::string const& name, Target const& target, AccountCheck const& check);
  static std::vector<Finding> serverFindings(Inet::InetCfg const& inet, boost::filesystem::path const& credentialsFile,
                                             bool traceLog, bool debugLog, long timeoutSecs,
                                             std::function<bool()> abandoned);

  void pass(std::string const& text);
  void warn(std::string const& text);
  void error(std::string const& text, std::string const& why);
  void report(std::vector<Finding> const& findings);

  void checkValues();
  void checkFolder(std::size_t index);
  void checkDistinct();
  void checkExtensionLists();
  void checkPort();
  void checkServers();
  void checkSmtp();
  void checkSmtpLogin();
  // Runs work on a worker; the test goes on with its findings once it is
  // done, or with an error that says notChecked when the pool is full.
  void onWorker(std::string const& notChecked, std::function<std::vector<Finding>(std::function<bool()>)> work);
  void checkBackup();

  Ipc::TestCfg& m_cmd;
  ServicePort const m_service;
  boost::filesystem::path const m_credentialsFile;
  long const m_httpTimeoutSecs;
  WorkerPool* const m_workers;
  std::optional<MailSenderOptions> const m_mail;
  Settings const m_settings;
  std::vector<std::function<void()>> m_steps;
  std::size_t m_next = 0;
  bool m_failed = false;
  bool m_waiting = false;  // the server checks run on a worker
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_CONFIGTESTRUNNER_H
