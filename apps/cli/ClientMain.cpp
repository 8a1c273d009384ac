// qxlite: the reference command-line client of the QXLite service.
//
// One sub-command per IPC command. Exit status 0 on success; on any failure
// (service not running, refused token, failed drop, a configuration that the
// service did not save, a failing configuration test) a one-line message on
// standard error and a non-zero status: 1 for a failure of the command, 2 for
// a wrong command line.
#include "apps/CommandLine.h"
#include "apps/ConfigFile.h"
#include "apps/JobCommand.h"
#include "apps/RuntimeFile.h"
#include "apps/ServiceFinder.h"
#include "apps/SizeText.h"
#include "apps/cli/DropCheck.h"
#include "ipc/IpcCmdsLite.h"
#include "ipc/MsgsUItoSvc.h"
#include "shared/CmdClient.h"
#include "shared/Log.h"
#include "shared/SecretToken.h"

#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>

namespace fs = boost::filesystem;

namespace {

// A failure of the command: its message goes to standard error, status 1.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The service is not there to ask: a state, not an error (status 3, as
// `systemctl status` says of a unit that is not active).
using NotRunning = qxapp::ServiceNotRunning;
constexpr int kNotRunningStatus = 3;

struct Global {
  std::string host = "127.0.0.1";
  int port = IPC_DEFAULT_SVC_PORT;
  std::string tokenFile;
  std::string runtimeFolder;  // empty: qxapp::clientRuntimeFolders()
  double timeoutSecs = 0;  // 0: the transport's own time-outs
  bool verbose = false;
};

// Without --port and --token-file, the service's runtime file says where it
// is; without any file, the defaults.
void findService(Global& g, bool portGiven, bool tokenGiven) {
  if (portGiven || tokenGiven) return;
  std::optional<qxapp::RuntimeFacts> const facts = qxapp::findRunningService(
      g.runtimeFolder, g.verbose, [](std::string const& note) { std::cerr << "qxlite: " << note << "\n"; });
  if (!facts) return;
  g.port = facts->port;
  g.tokenFile = facts->tokenFile;
}

bool colourOn(int fd) { return ::isatty(fd) && std::getenv("NO_COLOR") == nullptr; }

using qxapp::sizeText;

class Session {
 public:
  // The client moves its bytes on this thread: one command at a time, each
  // awaited, needs no threads of its own.
  explicit Session(Global const& g) : m_client(options(g), token(g)) {}

  // Runs cmd; a failed exchange is a Failure with the transport's message,
  // and nobody on the port is NotRunning.
  void run(std::shared_ptr<Ipc::CmdI> const& cmd) {
    std::string const error = m_client.run(cmd);
    if (error.empty()) return;
    std::string const nobody = qxapp::nobodyAnswers(error);
    if (!nobody.empty()) throw NotRunning(nobody);
    throw Failure(error);
  }
  Ipc::CmdClient& client() { return m_client; }

 private:
  static Ipc::CmdClientOptions options(Global const& g) {
    Ipc::CmdClientOptions o;
    o.host = g.host;
    o.port = static_cast<std::uint16_t>(g.port);
    o.tokenFile = tokenFile(g).string();
    if (g.timeoutSecs > 0) {
      auto const t = std::chrono::milliseconds(static_cast<long>(g.timeoutSecs * 1000));
      o.quickTimeout = o.longTimeout = o.transferTimeout = t;
    }
    return o;
  }
  static fs::path tokenFile(Global const& g) { return qxapp::clientTokenFile(g.tokenFile); }
  static Ipc::SecretToken token(Global const& g) { return qxapp::loadClientToken(tokenFile(g)); }

  Ipc::CmdClient m_client;
};

// The configuration in force.
std::shared_ptr<Ipc::GetCfg> fetchConfig(Session& s) {
  auto cmd = std::make_shared<Ipc::GetCfg>(nullptr);
  s.run(cmd);
  return cmd;
}

// A configuration file that must exist: readConfigObject takes a missing
// file for a configuration of defaults.
json::Object readExistingConfig(std::string const& file) {
  if (!fs::exists(file)) throw Failure("\"" + file + "\" does not exist");
  return qxapp::readConfigObject(file);
}

void saveConfig(Session& s, json::Object const& obj) {
  auto cmd = std::make_shared<Ipc::SaveCfg>(nullptr);
  cmd->payload = obj;
  s.run(cmd);
  if (!cmd->ok) throw Failure(cmd->msg.empty() ? "the service did not save the configuration" : cmd->msg);
  std::cout << cmd->msg << "\n";
}

// VALUE as JSON when it is JSON (7, true, ["pdf"], "text"), else as text.
json::Value parseValue(std::string const& text) {
  std::string const wrapped = "{\"v\":" + text + "}";
  try {
    return json::strToObject(wrapped.data(), wrapped.size())["v"];
  } catch (json::Exc const&) {
    return json::Value(text);
  }
}

json::Object fetchUploads(Session& s);

// "2m05s": a span of time for people.
std::string spanText(long long d) {
  std::ostringstream os;
  if (d >= 86400) os << d / 86400 << "d" << std::setw(2) << std::setfill('0') << d % 86400 / 3600 << "h";
  else if (d >= 3600) os << d / 3600 << "h" << std::setw(2) << std::setfill('0') << d % 3600 / 60 << "m";
  else if (d >= 60) os << d / 60 << "m" << std::setw(2) << std::setfill('0') << d % 60 << "s";
  else os << d << "s";
  return os.str();
}

std::string localTimeText(long long at) {
  std::time_t const t = static_cast<std::time_t>(at);
  std::tm local{};
  ::localtime_r(&t, &local);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

long long intOf(json::Object const& obj, char const* key);
std::string textOf(json::Object const& obj, char const* key);
json::Object fetchUploads(Session& s);
constexpr char const* kStateNames[] = {"queued", "uploading", "done", "failed", "rejected", "cancelled"};

void cmdStatus(Session& s, bool asJson) {
  auto cmd = std::make_shared<Ipc::IsRunning>(nullptr);
  s.run(cmd);
  json::Object const list = fetchUploads(s);
  json::Object const service(list["service"].isObject() ? list["service"] : json::Value(json::Object()));
  json::Object const totals(list["totals"].isObject() ? list["totals"] : json::Value(json::Object()));
  long long const now = static_cast<long long>(std::time(nullptr));
  long long const started = intOf(service, "started");
  if (asJson) {
    json::Object out;
    out.setAt("state", json::Value(cmd->running ? "running" : "paused"));
    if (list["pausedSince"].isInteger()) out.setAt("pausedSince", list["pausedSince"]);
    for (char const* key : {"version", "pid", "port", "config", "started"}) {
      if (!service[key].empty()) out.setAt(key, service[key]);
    }
    if (started > 0) out.setAt("uptime", json::Value(static_cast<json_int_t>(std::max(0LL, now - started))));
    out.setAt("totals", totals);
    if (list["held"].isString()) out.setAt("held", list["held"]);
    std::cout << json::jsonToString(out, true) << "\n";
    return;
  }
  std::cout << (cmd->running ? "running" : "paused");
  if (!cmd->running && list["pausedSince"].isInteger()) std::cout << " since " << localTimeText(intOf(list, "pausedSince"));
  std::cout << "\n";
  if (!service.empty()) {
    std::cout << "qxlite-svc " << textOf(service, "version") << ", pid " << intOf(service, "pid") << ", up "
              << spanText(std::max(0LL, now - started)) << ", port " << intOf(service, "port") << "\n";
    std::cout << "configuration \"" << textOf(service, "config") << "\"\n";
  }
  std::cout << "uploads:";
  for (std::size_t i = 0; i < sizeof kStateNames / sizeof *kStateNames; ++i) {
    std::cout << (i == 0 ? " " : ", ") << intOf(totals, kStateNames[i]) << " " << kStateNames[i];
  }
  std::cout << "\n";
  // Why nothing leaves, when nothing does.
  json::Value const held = list["held"];
  if (held.isString()) std::cout << "uploads held: " << logEscaped(held.asStringSafe()) << "\n";
}

// The report's lines and the key each one shows, by the start of the line;
// the first match wins, so a longer start comes before its prefix.
struct ReportLineKey {
  char const* start;
  char const* key;
};
constexpr ReportLineKey kReportLineKeys[] = {
    {"Account Id:", "AccountId"},
    {"Node Id:", "SpoolerId"},
    {"Key Id:", "KeyId"},
    {"Key:", "PublicKey"},
    {"Ignored extensions:", "IgnoredExtension"},
    {"Incoming Folder:", "ReceiveFolder"},
    {"Outgoing Folder:", "SpoolFolder"},
    {"Server address:", "InetServer"},
    {"Alternative server address:", "InetAltServer"},
    {"Proxy:", "InetUseProxy"},
    {"Proxy authentication:", "InetProxyAuth"},
    {"Proxy user:", "InetProxyUser"},
    {"Proxy password:", "InetProxyPassword"},
    {"Server certificate check:", "InetInsecureTls"},
    {"Backup folder", "BackupFolder"},
    {"Backup", "BackupExpireSecs"},
    {"Trace logging", "EnableLogging"},
    {"Remote clients", "AllowRemoteConfig"},
    {"Zip uploads", "MinFilesToZip"},
    {"Setting folder name", "UseDirName"},
    {"Not using folder name", "UseDirName"},
    {"E-mail notices:", "EmailSmtpUrl"},
    {"SMTP server:", "EmailSmtpUrl"},
    {"SMTP user:", "EmailUser"},
    {"SMTP password:", "EmailPassword"},
    {"SMTP TLS:", "EmailRequireTls"},
    {"E-mail on success:", "EmailNotifySuccess"},
    {"E-mail on failure:", "EmailNotifyFailure"},
    {"E-mail from:", "EmailFrom"},
    {"E-mail to:", "EmailTo"},
    {"Server accepted extensions:", "SrvFileExts"},
    {"Max upload threads:", "ConcurrentUploads"},
    {"IPC TCP port:", "IpcPort"},
    {"Maximum idle connection time:", "MaxConnIdleSecs"},
    {"IP4 is", "IpcForceIP4"},
    {"cURL debug tracing", "EnableCurlDbgLog"},
};

// Wide enough for the longest key and a blank.
constexpr int kKeyColumn = 20;

char const* reportLineKey(std::string const& line) {
  for (ReportLineKey const& k : kReportLineKeys) {
    if (line.compare(0, std::strlen(k.start), k.start) == 0) return k.key;
  }
  return "";
}

constexpr char kMasked[] = "***";

// The configuration's JSON form with every secret that is set shown as ***.
json::Object maskSecrets(json::Object obj) {
  for (qxapp::ConfigKey const& k : qxapp::configKeyTable()) {
    if (k.secret && !obj[k.name].asStringSafe().empty()) obj.setAt(k.name, json::Value(kMasked));
  }
  return obj;
}

// The report with the key of each line in a column before it; a secret's
// line shows the secret (masked unless showSecrets) instead of "set".
void printReport(Settings const& settings, json::Object const& payload, bool showSecrets) {
  std::istringstream report(settings.dump());
  std::string line;
  while (std::getline(report, line)) {
    char const* const key = reportLineKey(line);
    qxapp::ConfigKey const* const entry = qxapp::findConfigKey(key);
    if (entry && entry->secret) {
      std::string const secret = payload[key].asStringSafe();
      std::string const label = line.substr(0, line.find(':') + 1);
      line = label + " " + (secret.empty() ? "not set" : showSecrets ? secret : kMasked);
    }
    std::cout << std::left << std::setw(kKeyColumn) << key << line << "\n";
  }
}

void cmdConfigGet(Session& s, bool asJson, bool showSecrets) {
  std::shared_ptr<Ipc::GetCfg> const cmd = fetchConfig(s);
  if (asJson) {
    std::cout << json::jsonToString(showSecrets ? cmd->payload : maskSecrets(cmd->payload), true) << "\n";
  } else {
    printReport(*cmd->pSetts(), cmd->payload, showSecrets);
  }
}

// Every key the configuration file takes, with its type, default and meaning;
// with namesOnly one name a line, for scripts and the shell's completion.
void cmdConfigKeys(bool namesOnly) {
  if (namesOnly) {
    for (qxapp::ConfigKey const& k : qxapp::configKeyTable()) std::printf("%s\n", k.name);
    return;
  }
  std::printf("%-*s%-15s%s\n", kKeyColumn, "KEY", "TYPE", "MEANING (DEFAULT)");
  for (qxapp::ConfigKey const& k : qxapp::configKeyTable()) {
    std::string const fallback = *k.defaultValue ? std::string(" (default: ") + k.defaultValue + ")" : std::string();
    std::printf("%-*s%-15s%s%s\n", kKeyColumn, k.name, k.type, k.meaning, fallback.c_str());
  }
}

using Assignment = std::pair<std::string, json::Value>;

// The KEY=VALUE words of `config set`, checked before the service is asked.
std::vector<Assignment> parseAssignments(std::vector<std::string> const& assignments) {
  std::vector<Assignment> result;
  for (std::string const& a : assignments) {
    std::string::size_type const eq = a.find('=');
    if (eq == std::string::npos || eq == 0) throw Failure("\"" + a + "\" is not KEY=VALUE");
    std::string const key = a.substr(0, eq);
    if (!qxapp::configKeys().count(key)) {
      throw Failure("unknown configuration key \"" + key + "\" (`qxlite config keys` lists them)");
    }
    result.emplace_back(key, parseValue(a.substr(eq + 1)));
  }
  return result;
}

void cmdConfigSet(Session& s, std::vector<Assignment> const& assignments) {
  json::Object obj = fetchConfig(s)->payload;
  for (Assignment const& a : assignments) obj.setAt(a.first.c_str(), a.second);
  saveConfig(s, obj);
}

void cmdPauseResume(Session& s, bool pause, bool discard) {
  std::shared_ptr<Ipc::Resume> cmd =
      pause ? std::make_shared<Ipc::Pause>(nullptr, discard) : std::make_shared<Ipc::Resume>(nullptr);
  s.run(cmd);
  if (!cmd->ok) throw Failure(cmd->msg.empty() ? "the service refused it" : cmd->msg);
  std::cout << cmd->msg << "\n";
}

// Draws "[#####-----] 12.0 MiB / 40.0 MiB  8.1 MiB/s  0:03 left" on standard
// error while bytes move, when it is a terminal.
class ProgressBar {
 public:
  ProgressBar(Ipc::CmdClient& client, std::uint64_t total)
      : m_client(client), m_total(total), m_start(client.bytesSent()), m_on(::isatty(2)) {
    if (m_on) m_thread = std::thread([this] { loop(); });
  }
  ~ProgressBar() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_done = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) m_thread.join();
    if (m_on) std::cerr << "\r\033[K" << std::flush;
  }

 private:
  void loop() {
    auto const begin = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_wake.wait_for(lock, std::chrono::milliseconds(200), [this] { return m_done; })) {
      double const sent = static_cast<double>(std::min<std::uint64_t>(m_client.bytesSent() - m_start, m_total));
      double const secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
      double const rate = secs > 0 ? sent / secs : 0;
      int const filled = m_total ? static_cast<int>(30 * sent / m_total) : 30;
      long const left = rate > 0 ? static_cast<long>((m_total - sent) / rate) : 0;
      std::cerr << "\r[" << std::string(filled, '#') << std::string(30 - filled, '-') << "] "
                << sizeText(sent) << " / " << sizeText(m_total) << "  " << sizeText(rate) << "/s  "
                << left / 60 << ":" << std::setw(2) << std::setfill('0') << left % 60 << " left"
                << std::setfill(' ') << "\033[K" << std::flush;
    }
  }

  Ipc::CmdClient& m_client;
  std::uint64_t const m_total;
  std::uint64_t const m_start;
  bool const m_on;
  std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_done = false;  // guarded by m_mutex
  std::thread m_thread;
};

// Each problem on a line of its own, then the one line of the failure.
[[noreturn]] void failWithProblems(std::vector<std::string> const& problems) {
  for (std::string const& p : problems) std::cerr << "qxlite: " << p << "\n";
  throw Failure("nothing was dropped: " + std::to_string(problems.size()) + " problem(s)");
}

void cmdDrop(Session& s, std::vector<std::string> const& paths) {
  std::unique_ptr<Settings> const settings = fetchConfig(s)->pSetts();
  // Every path is looked at, and prepared, before anything is sent.
  std::vector<std::string> problems = qxcli::typeDropProblems(paths, *settings);
  if (!problems.empty()) failWithProblems(problems);
  std::vector<std::shared_ptr<Ipc::FileDrop>> drops;
  std::string notesOfAll;
  for (std::string const& p : paths) {
    auto drop = std::make_shared<Ipc::FileDrop>(nullptr, p);
    // The library's notes on skipped entries are shown only when something
    // is sent.
    std::ostringstream notes;
    Log::inst().toStream(notes);
    bool prepared = false;
    try {
      prepared = drop->prepareReq();
    } catch (fs::filesystem_error const& e) {
      Log::inst().toStderr();
      problems.push_back("\"" + p + "\": " + e.code().message());
      continue;
    } catch (...) {
      Log::inst().toStderr();
      throw;
    }
    Log::inst().toStderr();
    if (!prepared) problems.push_back("\"" + p + "\" holds nothing to drop (only empty files)");
    notesOfAll += notes.str();
    drops.push_back(drop);
  }
  if (!problems.empty()) failWithProblems(problems);
  std::cerr << notesOfAll << std::flush;
  for (std::size_t i = 0; i < drops.size(); ++i) {
    Ipc::FileDrop& drop = *drops[i];
    std::uint64_t total = 0;
    for (auto const& f : drop.files) total += f.size;
    std::size_t const count = drop.files.size();
    std::string failure;
    try {
      ProgressBar const bar(s.client(), total);
      s.run(drops[i]);
      if (!drop.ok) failure = drop.msg.empty() ? "the drop failed" : drop.msg;
    } catch (Failure const& e) {
      failure = e.what();
    }
    if (!failure.empty()) {
      std::string notSent;
      for (std::size_t j = i + 1; j < paths.size(); ++j) notSent += (notSent.empty() ? "" : ", ") + ("\"" + paths[j] + "\"");
      throw Failure("\"" + paths[i] + "\": " + failure + (notSent.empty() ? "" : "; not sent: " + notSent));
    }
    std::cout << "dropped \"" << paths[i] << "\": " << count << " file(s), " << sizeText(static_cast<double>(total))
              << "\n";
  }
}

// Prints each result line as it arrives; colour by prefix on a terminal.
class TestLinePrinter : public Ipc::CmdProcessorI {
 public:
  void processCmd(std::shared_ptr<Ipc::CmdI> cmd) override {
    auto const test = std::static_pointer_cast<Ipc::TestCfg>(cmd);
    bool const colour = colourOn(1);
    std::string line;
    while (test->getRespLine(line)) {
      char const* c = "";
      if (line.compare(0, Ipc::TST_LINE_START_ERR.size(), Ipc::TST_LINE_START_ERR) == 0) {
        c = "\033[31m";
        errors.fetch_add(1);
      } else if (line.compare(0, Ipc::TST_LINE_START_WARN.size(), Ipc::TST_LINE_START_WARN) == 0) {
        c = "\033[33m";
      } else if (line.compare(0, Ipc::TST_LINE_START_PASS.size(), Ipc::TST_LINE_START_PASS) == 0) {
        c = "\033[32m";
      }
      std::cout << (colour ? c : "") << line << (colour && *c ? "\033[0m" : "") << "\n" << std::flush;
    }
  }
  std::atomic<int> errors{0};
};

// fileConfig: the configuration to test, or null for the one in force.
void cmdTestConfig(Session& s, json::Object const* fileConfig) {
  json::Object const obj = fileConfig ? *fileConfig : fetchConfig(s)->payload;
  auto printer = std::make_shared<TestLinePrinter>();
  auto cmd = std::make_shared<Ipc::TestCfg>(printer);
  cmd->payload = obj;
  s.run(cmd);
  if (printer->errors > 0) throw Failure("the configuration test found " + std::to_string(printer->errors) + " error(s)");
}

json::Object parseParams(std::string const& paramsText) {
  if (paramsText.empty()) return json::Object();
  try {
    return json::strToObject(paramsText.data(), paramsText.size());
  } catch (json::Exc const& e) {
    throw Failure("PARAMS-JSON is not a JSON object: " + std::string(e.what()));
  }
}

void cmdCall(Session& s, std::string const& method, json::Object const& params) {
  auto cmd = std::make_shared<Ipc::ServerRequest>(nullptr, method, params, nullptr);
  s.run(cmd);
  json::Value const error = cmd->payload["error"];
  if (error.isString()) throw Failure("the server call failed: " + error.asStringSafe());
  std::cout << json::jsonToString(cmd->payload, true) << "\n";
}

// The service's own commands on one job travel as server calls of its own
// methods, which it answers itself.
void cmdJob(Session& s, qxapp::JobAction action, std::string const& jobId) {
  auto cmd = qxapp::jobRequest(action, jobId);
  s.run(cmd);
  std::string const refusal = qxapp::jobRefusal(cmd->payload);
  if (!refusal.empty()) throw Failure(refusal);
  std::cout << qxapp::jobDoneWord(action) << " job " << jobId << "\n";
}

// The service mails a test notice through its SMTP server and answers with
// the server's reply ({"ok":true,"reply":...}) or why not ({"msg":...}).
constexpr char const* kNotifyTestMethod = "qxlite.notify-test";

void cmdNotifyTest(Session& s) {
  auto cmd = std::make_shared<Ipc::ServerRequest>(nullptr, kNotifyTestMethod, json::Object(), nullptr);
  s.run(cmd);
  if (cmd->payload["ok"].isTrue()) {
    std::cout << "Test notice sent; the SMTP server answered: " << textOf(cmd->payload, "reply") << "\n";
    return;
  }
  json::Value const msg = cmd->payload["msg"];
  throw Failure("no test notice was sent: " +
                (msg.isString() ? logEscaped(msg.asStringSafe()) : std::string("the service did not say why")));
}

json::Object fetchUploads(Session& s) {
  auto cmd = std::make_shared<Ipc::GetUploads>(nullptr);
  s.run(cmd);
  if (!cmd->payload["uploads"].isArray()) throw Failure("the service's list of uploads is not a list");
  return cmd->payload;
}

long long intOf(json::Object const& obj, char const* key) {
  json::Value const v = obj[key];
  return v.isInteger() ? static_cast<long long>(json_integer_value(v.get())) : 0;
}

std::string textOf(json::Object const& obj, char const* key) {
  json::Value const v = obj[key];
  // Names and messages come from files and servers: never raw to a terminal.
  return v.isString() ? logEscaped(v.asStringSafe()) : std::string();
}

// "in 2m05s" for a time to come, "now" for one past.
std::string whenText(long long at, long long now) {
  if (at <= now) return "now";
  long long const d = at - now;
  std::ostringstream os;
  if (d >= 3600) os << d / 3600 << "h" << std::setw(2) << std::setfill('0') << d % 3600 / 60 << "m";
  else if (d >= 60) os << d / 60 << "m" << std::setw(2) << std::setfill('0') << d % 60 << "s";
  else os << d << "s";
  return "in " + os.str();
}

void printUploads(json::Object const& list, std::ostream& out) {
  json::Array const jobs(list["uploads"]);
  json::Array const waiting(list["waiting"].isArray() ? list["waiting"] : json::Value(json::Array()));
  long long const now = static_cast<long long>(std::time(nullptr));
  char line[512];
  bool const paused = list["paused"].isTrue();
  if (paused) out << "paused: nothing new starts (qxlite resume)\n";
  std::snprintf(line, sizeof line, "%-25s %-9s %10s %5s %5s %-9s %s\n", "JOB", "STATE", "SIZE", "SENT", "TRIES",
                "NEXT TRY", "NAME");
  out << line;
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    json::Object const job(jobs[i]);
    long long const size = intOf(job, "size");
    long long const sent = intOf(job, "sent");
    std::string const percent = size > 0 ? std::to_string(sent * 100 / size) + "%" : "-";
    std::string const next = job["nextTry"].isInteger() ? whenText(intOf(job, "nextTry"), now) : "";
    std::snprintf(line, sizeof line, "%-25s %-9s %10s %5s %5lld %-9s ", textOf(job, "id").c_str(),
                  textOf(job, "state").c_str(), sizeText(static_cast<double>(size)).c_str(), percent.c_str(),
                  intOf(job, "attempts"), next.c_str());
    out << line << textOf(job, "name") << "\n";
    std::string const error = textOf(job, "error");
    if (!error.empty()) out << "    " << error << "\n";
  }
  // Items the paused service has not taken in yet.
  for (std::size_t i = 0; i < waiting.size(); ++i) {
    json::Object const item(waiting[i]);
    std::snprintf(line, sizeof line, "%-25s %-9s %10s %5s %5s %-9s ", "-", "waiting",
                  sizeText(static_cast<double>(intOf(item, "size"))).c_str(), "", "", "");
    out << line << textOf(item, "name") << "\n";
  }
  if (jobs.size() == 0 && waiting.size() == 0) out << "(no uploads)\n";
  if (list["totals"].isObject()) {
    json::Object const totals(list["totals"]);
    out << intOf(totals, "queued") << " queued, " << intOf(totals, "uploading") << " uploading, "
        << intOf(totals, "done") << " done, " << intOf(totals, "failed") << " failed, " << intOf(totals, "rejected")
        << " rejected, " << intOf(totals, "cancelled") << " cancelled; "
        << sizeText(static_cast<double>(intOf(list, "throughput"))) << "/s\n";
  }
  std::string const held = textOf(list, "held");
  if (!held.empty()) out << "held: " << held << "\n";
}

void cmdUploads(Session& s, bool asJson, bool watch) {
  if (asJson) {
    std::cout << json::jsonToString(fetchUploads(s), true) << "\n";
    return;
  }
  if (!watch) {
    printUploads(fetchUploads(s), std::cout);
    return;
  }
  // Until interrupted: the whole table again every second, in place on a
  // terminal.
  bool const tty = ::isatty(1) != 0;
  for (;;) {
    std::ostringstream page;
    printUploads(fetchUploads(s), page);
    std::cout << (tty ? "\033[H\033[2J" : "") << page.str() << std::flush;
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  Global g;
  CLI::App app{"qxlite: drive the QXLite service"};
  app.set_version_flag("--version", std::string("qxlite ") + QX_VERSION, "Print the version and exit");
  app.require_subcommand(1);
  app.add_option("--host", g.host, "Service host (default 127.0.0.1)");
  app.add_option("--port", g.port, "Service IPC port (default " + Settings::IPC_DEFAULT_SVC_PORT_STR() + ")")
      ->check(qxapp::portNumber(1));
  auto* portOption = app.get_option("--port");
  auto* tokenOption = app.add_option("--token-file", g.tokenFile, "Secret token file (default: the service's)");
  app.add_option("--runtime-dir", g.runtimeFolder,
                 "Folder of the service's runtime file, read when neither --port nor --token-file is given "
                 "(default: /run/qxlite as root, else $XDG_RUNTIME_DIR/qxlite)");
  app.add_option("--timeout", g.timeoutSecs, "Seconds without progress before a command fails")
      ->check(CLI::Range(0.001, 86400.0));
  app.add_flag("--verbose", g.verbose, "Write TRACE lines");

  auto* status = app.add_subcommand("status", "The service: running or paused, version, pid, uptime, port, "
                                               "configuration, the uploads by state, why they are held");
  bool statusJson = false;
  status->add_flag("--json", statusJson, "As JSON");
  auto* config = app.add_subcommand("config", "The service's configuration");
  config->require_subcommand(1);
  bool asJson = false;
  auto* configGet = config->add_subcommand("get", "Show the configuration in force");
  configGet->add_flag("--json", asJson, "As its JSON form");
  bool showSecrets = false;
  configGet->add_flag("--show-secrets", showSecrets, "Show the passwords instead of ***");
  auto* configKeys = config->add_subcommand("keys", "List the configuration keys: type, meaning, default");
  bool keyNamesOnly = false;
  configKeys->add_flag("--names", keyNamesOnly, "Only the keys' names, one a line");
  std::vector<std::string> assignments;
  auto* configSet = config->add_subcommand("set", "Change keys: fetch, change, save");
  configSet->add_option("assignments", assignments, "KEY=VALUE (VALUE as JSON, or text)")->required();
  std::string file;
  auto* configSave = config->add_subcommand("save", "Save a configuration file as the service's");
  configSave->add_option("FILE", file, "A JSON configuration file")->required();
  bool discard = false;
  auto* pause = app.add_subcommand("pause", "Stop taking new items");
  pause->add_flag("--discard", discard, "Move the waiting items to the rejected folder");
  auto* resume = app.add_subcommand("resume", "Take new items again");
  std::vector<std::string> paths;
  auto* drop = app.add_subcommand("drop", "Hand files or folders to the service");
  drop->add_option("PATH", paths, "Files or folders")->required();
  auto* testConfig = app.add_subcommand("test-config", "Have the service test a configuration");
  testConfig->add_option("FILE", file, "A configuration file (default: the one in force)");
  std::string method, paramsText;
  auto* call = app.add_subcommand("call", "Have the service call the server");
  call->add_option("METHOD", method, "The server method")->required();
  call->add_option("PARAMS-JSON", paramsText, "Its parameters, a JSON object");
  bool watch = false;
  auto* uploads = app.add_subcommand("uploads", "List the service's upload jobs, their states and progress");
  uploads->add_flag("--json", asJson, "As JSON");
  uploads->add_flag("--watch", watch, "Show the list again every second until interrupted");
  std::string jobId;
  auto* cancel = app.add_subcommand("cancel", "Stop a job and move its files to the rejected folder");
  cancel->add_option("JOB", jobId, "The job's id (see qxlite uploads)")->required();
  auto* retry = app.add_subcommand("retry", "Try a waiting job again now");
  retry->add_option("JOB", jobId, "The job's id (see qxlite uploads)")->required();
  auto* notifyTest =
      app.add_subcommand("notify-test", "Have the service mail a test notice and print the SMTP server's answer");

  // The first words that are neither options nor their values must name a
  // sub-command, and a sub-command of it when it has some ("config get"):
  // say so plainly when they do not.
  CLI::App* level = &app;
  std::string named;
  for (int i = 1; i < argc && !level->get_subcommands({}).empty(); ++i) {
    std::string const arg = argv[i];
    if (arg.rfind("-", 0) == 0) {
      CLI::Option const* option = app.get_option_no_throw(arg.substr(0, arg.find('=')));
      bool const takesValue = option != nullptr && option->get_type_size_min() > 0;
      if (takesValue && arg.find('=') == std::string::npos) ++i;
      continue;
    }
    named += (named.empty() ? "" : " ") + arg;
    auto const sub = level->get_subcommands([&arg](CLI::App* s) { return s->get_name() == arg; });
    if (sub.empty()) {
      std::cerr << "qxlite: unknown sub-command \"" << named << "\" (see qxlite --help)\n";
      return 2;
    }
    level = sub.front();
  }
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "qxlite: " << e.what() << " (see qxlite --help)\n";
    return 2;
  }
  g_LogVerbose = g.verbose;
  if (*configKeys) {
    cmdConfigKeys(keyNamesOnly);  // needs no service
    return 0;
  }
  try {
    // Mistakes on this machine are said before the service is looked for.
    if (*drop) {
      std::vector<std::string> const problems = qxcli::localDropProblems(paths);
      if (!problems.empty()) failWithProblems(problems);
    }
    std::vector<Assignment> const sets = *configSet ? parseAssignments(assignments) : std::vector<Assignment>();
    bool const withFile = *configSave || (*testConfig && !file.empty());
    json::Object const fileConfig = withFile ? readExistingConfig(file) : json::Object();
    json::Object const params = *call ? parseParams(paramsText) : json::Object();
    findService(g, portOption->count() > 0, tokenOption->count() > 0);
    Session s(g);
    if (*status) cmdStatus(s, statusJson);
    else if (*configGet) cmdConfigGet(s, asJson, showSecrets);
    else if (*configSet) cmdConfigSet(s, sets);
    else if (*configSave) saveConfig(s, fileConfig);
    else if (*pause) cmdPauseResume(s, true, discard);
    else if (*resume) cmdPauseResume(s, false, false);
    else if (*drop) cmdDrop(s, paths);
    else if (*testConfig) cmdTestConfig(s, withFile ? &fileConfig : nullptr);
    else if (*call) cmdCall(s, method, params);
    else if (*uploads) cmdUploads(s, asJson, watch);
    else if (*cancel) cmdJob(s, qxapp::JobAction::Cancel, jobId);
    else if (*retry) cmdJob(s, qxapp::JobAction::Retry, jobId);
    else if (*notifyTest) cmdNotifyTest(s);
    return 0;
  } catch (NotRunning const& e) {
    std::cerr << "qxlite: " << qxapp::notRunningText(e.what()) << "\n";
    return kNotRunningStatus;
  } catch (std::exception const& e) {
    std::cerr << "qxlite: " << e.what() << "\n";
    return 1;
  }
}
