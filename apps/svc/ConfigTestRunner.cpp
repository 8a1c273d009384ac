#include "apps/svc/ConfigTestRunner.h"

#include "apps/ConfigFile.h"
#include "apps/svc/FolderFd.h"
#include "apps/svc/HttpClient.h"
#include "apps/svc/SpoolPolicy.h"
#include "apps/svc/upload/Credentials.h"
#include "apps/svc/notify/MailSender.h"
#include "ipc/MsgsUItoSvc.h"
#include "shared/DeferredResponse.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/filesystem/operations.hpp>

namespace fs = boost::filesystem;

namespace qxsvc {

namespace {

std::string quoted(fs::path const& p) { return "\"" + p.string() + "\""; }

// Whether this process may write into folder (make entries in it), by its
// effective ids; nothing is made to find out.
std::string canWriteIn(fs::path const& folder) {
  if (::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) return std::strerror(errno);
  return std::string();
}

// What the answer to the account's check means, by status; a status not
// in the table: 5xx a warning, any other an error, with the server's words.
struct AccountAnswer {
  long status;
  bool s3;  // the row is S3's; false: WebDAV's
  ConfigTestRunner::Finding::Kind kind;
  char const* what;  // after the server's name; "%s": the bucket or folder
  bool withAnswer;   // the server's answer as the line's reason
};
constexpr AccountAnswer kAccountAnswers[] = {
    {200, true, ConfigTestRunner::Finding::Kind::pass, " accepts the upload account", false},
    {207, false, ConfigTestRunner::Finding::Kind::pass, " accepts the upload account", false},
    {401, true, ConfigTestRunner::Finding::Kind::error, " refuses the upload account", true},
    {401, false, ConfigTestRunner::Finding::Kind::error, " refuses the upload account", true},
    {403, true, ConfigTestRunner::Finding::Kind::error, " refuses the upload account", true},
    {403, false, ConfigTestRunner::Finding::Kind::error, " refuses the upload account", true},
    {404, true, ConfigTestRunner::Finding::Kind::error, " has no bucket \"%s\"", true},
    {404, false, ConfigTestRunner::Finding::Kind::warn,
     " has no folder \"%s\" yet: the first upload makes it", false},
    {405, false, ConfigTestRunner::Finding::Kind::warn,
     " answers, but cannot list its folder (HTTP 405): the upload account was not checked", false},
    {501, false, ConfigTestRunner::Finding::Kind::warn,
     " answers, but cannot list its folder (HTTP 501): the upload account was not checked", false},
};

}  // namespace

ConfigTestRunner::Finding ConfigTestRunner::accountFinding(std::string const& name, Target const& target,
                                                           AccountCheck const& check) {
  if (!check.answered) return {Finding::Kind::error, name + " does not answer", check.message};
  bool const s3 = target.protocol == Protocol::S3;
  for (AccountAnswer const& row : kAccountAnswers) {
    if (row.status != check.status || row.s3 != s3) continue;
    std::string what = row.what;
    std::size_t const slot = what.find("%s");
    if (slot != std::string::npos) what.replace(slot, 2, s3 ? target.bucket : "/" + target.prefix);
    return {row.kind, name + what, row.withAnswer ? check.message : ""};
  }
  std::string const status = std::to_string(check.status);
  if (check.status >= 500) return {Finding::Kind::warn, name + " answers with HTTP " + status, ""};
  return {Finding::Kind::error, name + " answers with HTTP " + status, check.message};
}

ConfigTestRunner::ConfigTestRunner(Ipc::TestCfg& cmd, ServicePort service, fs::path credentialsFile,
                                   long httpTimeoutSecs, WorkerPool* workers, MailSenderOptions const* mail)
    : m_cmd(cmd),
      m_service(service),
      m_credentialsFile(std::move(credentialsFile)),
      m_httpTimeoutSecs(httpTimeoutSecs),
      m_workers(workers),
      m_mail(mail ? std::make_optional(*mail) : std::nullopt),
      m_settings(*cmd.pSetts()) {
  m_steps.push_back([this] { checkValues(); });
  for (std::size_t i = 0; i < 4; ++i) m_steps.push_back([this, i] { checkFolder(i); });
  m_steps.push_back([this] { checkDistinct(); });
  m_steps.push_back([this] { checkExtensionLists(); });
  m_steps.push_back([this] { checkPort(); });
  m_steps.push_back([this] { checkServers(); });
  m_steps.push_back([this] { checkSmtp(); });
  m_steps.push_back([this] { checkBackup(); });
}

bool ConfigTestRunner::runStep() {
  if (m_next == m_steps.size()) return false;
  m_steps[m_next++]();
  return true;
}

void ConfigTestRunner::pass(std::string const& text) {
  m_cmd.respMsgs()->lines.push_back(Ipc::TST_LINE_START_PASS + text);
}

void ConfigTestRunner::warn(std::string const& text) {
  m_cmd.respMsgs()->lines.push_back(Ipc::TST_LINE_START_WARN + text);
}

void ConfigTestRunner::error(std::string const& text, std::string const& why) {
  m_failed = true;
  m_cmd.respMsgs()->lines.push_back(Ipc::TST_LINE_START_ERR + text);
  if (!why.empty()) m_cmd.respMsgs()->lines.push_back(Ipc::TST_LINE_START_DESCR + why);
}

void ConfigTestRunner::report(std::vector<Finding> const& findings) {
  for (Finding const& f : findings) {
    switch (f.kind) {
      case Finding::Kind::pass: pass(f.text); break;
      case Finding::Kind::warn: warn(f.text); break;
      case Finding::Kind::error: error(f.text, f.why); break;
    }
  }
}

void ConfigTestRunner::checkValues() {
  // The service's own check at start and on SaveCfg: the same verdict.
  std::string const why = qxapp::checkConfigValues(m_cmd.payload);
  if (!why.empty()) {
    error("The configuration holds a value that is refused", why);
    return;
  }
  try {
    qxapp::settingsFromObject(m_cmd.payload, "the configuration");
    pass("The configuration's values are accepted");
  } catch (std::exception const& e) {
    error("The configuration holds a value that is refused", e.what());
  }
}

void ConfigTestRunner::checkFolder(std::size_t index) {
  SpoolFolder const f = spoolFolders(m_settings)[index];
  std::string const name = std::string("The ") + f.role + " folder " + quoted(f.path);
  std::string const why = checkLocation(f.path);
  if (!why.empty()) {
    error(name + " cannot be used", why);
    return;
  }
  fs::path existing;
  std::string const refused = checkExistingPart(f.path, existing);
  if (existing == f.path.lexically_normal()) {
    OpenedFolder const opened = openSpoolFolder(f.path, MakeMissing::no);
    std::string const unusable = !refused.empty() ? refused : opened.why;
    if (!unusable.empty()) {
      error(name + " cannot be used", unusable);
      return;
    }
    std::string const bad = canWriteIn(f.path);
    if (bad.empty()) pass(name + " exists and can be written");
    else error(name + " cannot be written", bad);
    return;
  }
  std::string const bad = !refused.empty() ? refused : canWriteIn(existing);
  if (bad.empty()) pass(name + " does not exist yet and can be made");
  else if (!refused.empty()) error(name + " cannot be made", bad);
  else error(name + " cannot be made", quoted(existing) + ": " + bad);
}

void ConfigTestRunner::checkDistinct() {
  // Each folder's place has a line of its own: this one is about overlap only.
  std::string const why = checkOverlap(m_settings);
  if (why.empty()) pass("The spool folders are distinct");
  else error("The spool folders overlap", why);
}

void ConfigTestRunner::checkExtensionLists() {
  bool good = true;
  for (char const* key : qxapp::kExtensionListKeys) {
    std::optional<qxapp::NonText> const bad = qxapp::firstNonText(m_cmd.payload, key);
    if (!bad) continue;
    good = false;
    if (bad->index < 0) {
      error(std::string("The list ") + key + " is not a list", "it is a " + bad->type);
    } else {
      error(std::string("The list ") + key + " holds a value that is not a text",
            "element " + std::to_string(bad->index) + " is a " + bad->type);
    }
  }
  if (good) pass("The extension lists hold texts only");
}

void ConfigTestRunner::checkPort() {
  std::uint16_t const port = m_settings.IpcPort;
  if (port == m_service.port) {
    pass("The IPC port " + std::to_string(port) + " is the one this service uses");
    return;
  }
  boost::asio::io_context io;
  boost::asio::ip::tcp::acceptor acceptor(io);
  boost::system::error_code ec;
  boost::asio::ip::tcp::endpoint const ep(boost::asio::ip::make_address("127.0.0.1"), port);
  acceptor.open(ep.protocol(), ec);
  if (!ec) acceptor.bind(ep, ec);
  if (ec) {
    error("The IPC port " + std::to_string(port) + " cannot be used", ec.message());
  } else if (m_service.portFromCommandLine) {
    // Free, but not where this service listens: a client that goes by the
    // configuration's port would not find it.
    warn("The IPC port " + std::to_string(port) + " can be used, but this service listens on " +
         std::to_string(m_service.port) + ", given by its --port option");
  } else {
    pass("The IPC port " + std::to_string(port) + " can be used");
  }
}

void ConfigTestRunner::checkServers() {
  Inet::InetCfg const& inet = m_settings.InetConfig;
  if (inet.serverAddress().empty()) {
    warn("No server address is set");
    return;
  }
  bool const traceLog = m_settings.EnableLogging;
  bool const debugLog = traceLog && m_settings.EnableCurlDbgLog;
  if (!m_workers) {
    report(serverFindings(inet, m_credentialsFile, traceLog, debugLog, m_httpTimeoutSecs, {}));
    return;
  }
  onWorker("The servers were not checked", [inet, credentials = m_credentialsFile, traceLog, debugLog,
                                            timeout = m_httpTimeoutSecs](std::function<bool()> abandoned) {
    return serverFindings(inet, credentials, traceLog, debugLog, timeout, std::move(abandoned));
  });
}

void ConfigTestRunner::onWorker(std::string const& notChecked,
                                std::function<std::vector<Finding>(std::function<bool()>)> work) {
  // The worker fills findings; the test goes on, on the transport's thread,
  // once it is done.
  auto const findings = std::make_shared<std::vector<Finding>>();
  m_waiting = true;
  auto const wait = std::make_shared<Ipc::DeferredResponse>(m_cmd, [this, findings] {
    m_waiting = false;
    report(*findings);
    m_cmd.execOneTest();
  });
  bool const queued = m_workers->submit([wait, findings, work = std::move(work)] {
    *findings = work([wait] { return wait->cancelled(); });
    wait->complete();
  });
  if (!queued) {
    findings->push_back({Finding::Kind::error, notChecked, m_workers->busyText()});
    wait->complete();
  }
}

std::vector<ConfigTestRunner::Finding> ConfigTestRunner::serverFindings(Inet::InetCfg const& inet,
                                                                        fs::path const& credentialsFile,
                                                                        bool traceLog, bool debugLog,
                                                                        long timeoutSecs,
                                                                        std::function<bool()> abandoned) {
  std::vector<Finding> findings;
  std::optional<Credentials> account;
  try {
    account = loadCredentials(credentialsFile);
  } catch (std::exception const& e) {
    findings.push_back({Finding::Kind::error, "The upload account cannot be read", e.what()});
  }
  EngineOptions options;
  options.traceRequests = traceLog;
  options.curlDebug = debugLog;
  HttpClient const http(inet, debugLog, timeoutSecs, abandoned);
  for (std::string const& address : serverAddresses(inet)) {
    std::string const name = "The server \"" + address + "\"";
    Target target;
    std::string why;
    if (!parseTarget(address, target, why)) {
      findings.push_back({Finding::Kind::error, name + " cannot be used", why});
      continue;
    }
    if (!account) {
      // Only whether it answers at all.
      HttpResult const r = http.get(target.origin + "/");
      if (!r.transferred) findings.push_back({Finding::Kind::error, name + " does not answer", r.error});
      else findings.push_back({Finding::Kind::warn, name + " answers; the upload account was not checked", ""});
      continue;
    }
    AccountCheck const check =
        checkAccount(target, inet, *account, options, std::chrono::seconds(timeoutSecs), abandoned);
    findings.push_back(accountFinding(name, target, check));
  }
  return findings;
}

void ConfigTestRunner::checkSmtp() {
  std::string const& url = m_settings.EmailConfig.smtpUrl();
  if (url.empty()) {
    warn("No SMTP server is set: no e-mail notices");
    return;
  }
  std::string const why = Inet::EmailCfg::checkSmtpUrl(url);
  std::string const scheme = url.substr(0, url.find("://") == std::string::npos ? 0 : url.find("://") + 3);
  if (!why.empty()) {
    error("The SMTP URL \"" + url + "\" is not well formed", why);
  } else if (!scheme.empty() && scheme != "smtp://" && scheme != "smtps://") {
    error("The SMTP URL \"" + url + "\" is not well formed", "it must begin with smtp:// or smtps://");
  } else {
    pass("The SMTP URL \"" + url + "\" is well formed");
    checkSmtpLogin();
  }
}

void ConfigTestRunner::checkSmtpLogin() {
  Inet::EmailCfg const& email = m_settings.EmailConfig;
  if (email.notifyFailure() || email.notifySuccess()) {
    std::string const fromWhy = checkMailAddress(email.from());
    if (!fromWhy.empty()) error("The sender of e-mail notices (EmailFrom) is wrong", fromWhy);
    try {
      splitMailAddresses(email.to());
    } catch (std::invalid_argument const& e) {
      error("The recipients of e-mail notices (EmailTo) are wrong", e.what());
    }
  }
  if (!m_mail || !m_workers) return;
  std::string const name = "The SMTP server \"" + email.smtpUrl() + "\"";
  onWorker(name + " was not checked",
           [name, email, inet = m_settings.InetConfig, sender = MailSender(*m_mail)](std::function<bool()> abandoned) {
             MailOutcome const outcome = sender.checkLogin(email, inet, abandoned);
             std::string const what = email.user().empty() ? " answers (no login is set)"
                                                           : " answers and accepts the login of \"" + email.user() + "\"";
             return std::vector<Finding>{outcome.done
                                             ? Finding{Finding::Kind::pass, name + what + ": " + outcome.reply, ""}
                                             : Finding{Finding::Kind::error, name + " does not take notices", outcome.reply}};
           });
}

void ConfigTestRunner::checkBackup() {
  std::uint32_t const secs = m_settings.BackupExpireSecs;
  if (secs == 0) warn("Backup is off");
  else if (secs == 0xFFFFFFFFu) pass("Backup is on; items never expire");
  else if (secs < 3600) warn("Backup items expire after " + std::to_string(secs) + " s, less than an hour");
  else pass("Backup items expire after " + std::to_string(secs) + " s (" + std::to_string(secs / 86400) + " day(s))");
}

}  // namespace qxsvc
