#include "apps/svc/SvcProcessor.h"

#include "apps/ConfigFile.h"
#include "apps/JobCommand.h"
#include "apps/svc/ConfigTestRunner.h"
#include "apps/svc/HttpClient.h"
#include "apps/svc/SpoolPolicy.h"
#include "shared/DeferredResponse.h"
#include "shared/Log.h"

#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace fs = boost::filesystem;

namespace qxsvc {

namespace {

// ": a, b, c" for the reply to a person; the log names each item on a line
// of its own, so a long list ends with how many more there are.
std::string listedBriefly(std::vector<std::string> const& names) {
  constexpr std::size_t kNamed = 10;
  std::string text;
  for (std::size_t i = 0; i < names.size() && i < kNamed; ++i) text += (i == 0 ? ": " : ", ") + names[i];
  if (names.size() > kNamed) text += " and " + std::to_string(names.size() - kNamed) + " more";
  return text;
}

// The method of ServerRequest by which `qxlite notify-test` has the service
// mail a test notice ({"ok":true,"reply":...} or {"msg":...}).
constexpr char kNotifyTestMethod[] = "qxlite.notify-test";

json::Object errorPayload(std::string const& text) {
  json::Object obj;
  obj.setAt("error", json::Value(text));
  return obj;
}

// A ServerRequest's call of the server, as a worker makes it: plain values
// only, for JSON handles must not cross threads.
struct ServerCall {
  Inet::InetCfg cfg{std::string()};
  std::string body;  // the JSON text posted
  bool debugLog = false;
  long timeoutSecs = 0;
};

// Posts the call to the server address, then to the alternative one when
// the first does not answer; the answer's payload.
json::Object callServer(ServerCall const& call, std::function<bool()> abandoned) {
  HttpClient const http(call.cfg, call.debugLog, call.timeoutSecs, std::move(abandoned));
  std::string failure;
  for (std::string const& address : serverAddresses(call.cfg)) {
    HttpResult const r = http.postJson(address, call.body);
    if (!r.transferred) {
      failure = "the server at " + address + " does not answer: " + r.error;
      continue;  // the alternative address may
    }
    if (r.status < 200 || r.status >= 300) {
      return errorPayload("the server at " + address + " answered with HTTP status " + std::to_string(r.status));
    }
    try {
      return json::strToObject(r.body.data(), r.body.size());
    } catch (json::Exc const& e) {
      return errorPayload("the server at " + address + " did not answer with a JSON object: " + e.what());
    }
  }
  return errorPayload(failure);
}

}  // namespace

std::string checkChange(Settings const& current, Settings const& next, json::Object const& raw) {
  std::string why = qxapp::checkConfigValues(raw);
  if (why.empty()) why = checkFolders(next);
  if (!why.empty()) return why;
  if (next.AllowRemoteConfig && !current.AllowRemoteConfig) {
    return "configuration from remote clients can only be enabled in the configuration file";
  }
  if (next.IpcPort != current.IpcPort || next.IpcForceIP4 != current.IpcForceIP4) {
    return "the IPC port and address family of the service can only be changed in the "
           "configuration file";
  }
  return std::string();
}

Settings acceptConfigFile(boost::filesystem::path const& file) {
  std::string const what = "the configuration \"" + file.string() + "\"";
  json::Object const raw = qxapp::readConfigObject(file);
  Settings settings = qxapp::settingsFromObject(raw, what);
  std::string const why = checkChange(settings, settings, raw);
  if (!why.empty()) throw qxapp::ConfigError(what + ": " + why);
  return settings;
}

SvcProcessor::SvcProcessor(Settings const& settings, fs::path configFile, Pipeline& pipeline,
                           WorkerPool& workers, long httpTimeoutSecs, Notifier* notifier)
    : m_configFile(std::move(configFile)),
      m_pipeline(pipeline),
      m_workers(workers),
      m_notifier(notifier),
      m_httpTimeoutSecs(httpTimeoutSecs),
      m_started(static_cast<std::int64_t>(std::time(nullptr))),
      m_settings(qxapp::independentCopy(settings)) {}

void SvcProcessor::setServicePort(std::uint16_t port, bool fromCommandLine) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_service = {port, fromCommandLine};
}

Settings SvcProcessor::current() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return qxapp::independentCopy(m_settings);
}

fs::path SvcProcessor::incomingFolder() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_settings.ReceiveFolder;
}

void SvcProcessor::visit(Ipc::IsRunning& cmd) { cmd.running = !m_pipeline.paused(); }

void SvcProcessor::visit(Ipc::GetCfg& cmd) { cmd.setSetts(current()); }

std::string SvcProcessor::takeIntoForce(Settings const& base, Settings const& next, json::Object const& raw,
                                        std::function<void()> const& keep, std::string const& done) {
  std::string why = checkChange(base, next, raw);
  if (why.empty()) why = prepareFolders(next);
  if (!why.empty()) return why;
  Settings const before = current();
  keep();
  {
    Settings copy = qxapp::independentCopy(next);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_settings = std::move(copy);
  }
  m_pipeline.setSettings(next);
  if (m_notifier) m_notifier->setSettings(next);
  std::vector<std::string> const changes = qxapp::configChanges(before, next);
  std::string changed;
  for (std::string const& c : changes) changed += (changed.empty() ? "" : "; ") + c;
  Log::inst().writeLine("INFO:", "qxlite-svc " + done + (changes.empty() ? std::string(": nothing changed") : ": " + changed));
  return std::string();
}

void SvcProcessor::visit(Ipc::SaveCfg& cmd) {
  std::lock_guard<std::mutex> save(m_saveMutex);
  std::string const saved = "Configuration saved to \"" + m_configFile.string() + "\"";
  try {
    Settings const next = qxapp::settingsFromObject(cmd.payload, "the configuration");
    std::string const why = takeIntoForce(current(), next, cmd.payload, [&] {
      qxapp::writeConfigAtomically(m_configFile, qxapp::configText(next));
    }, saved);
    cmd.ok = why.empty();
    cmd.msg = cmd.ok ? saved : "Configuration not saved: " + why;
  } catch (std::exception const& e) {
    cmd.ok = false;
    cmd.msg = std::string("Configuration not saved: ") + e.what();
  }
  if (!cmd.ok) Log::inst().writeLine("WARNING:", "qxlite-svc " + cmd.msg);
}

std::string SvcProcessor::reload() {
  std::lock_guard<std::mutex> save(m_saveMutex);
  std::string const what = "the configuration \"" + m_configFile.string() + "\"";
  std::string why;
  try {
    boost::system::error_code error;
    if (!fs::exists(fs::symlink_status(m_configFile, error))) {
      // At the start a missing file means defaults; in a running service it
      // is far more likely a mistake than a wish to forget everything.
      why = what + ": there is no such file";
    } else {
      json::Object const raw = qxapp::readConfigObject(m_configFile);
      Settings const next = qxapp::settingsFromObject(raw, what);
      Settings base = current();
      if (next.IpcPort != base.IpcPort || next.IpcForceIP4 != base.IpcForceIP4) {
        why = what + ": the IPC port and address family of the service change only when it starts again "
                     "(systemctl restart qxlite-svc)";
      } else {
        // The file is where remote configuration may be enabled.
        base.AllowRemoteConfig = next.AllowRemoteConfig;
        why = takeIntoForce(base, next, raw, [] {}, "Configuration reloaded from \"" + m_configFile.string() + "\"");
        if (!why.empty()) why = what + ": " + why;
      }
    }
  } catch (std::exception const& e) {
    why = e.what();  // names the file
  }
  if (!why.empty()) Log::inst().writeLine("WARNING:", "qxlite-svc Configuration not reloaded, the one in force stays: " + why);
  return why;
}

void SvcProcessor::visit(Ipc::Pause& cmd) {
  try {
    bool const already = m_pipeline.paused();
    std::vector<std::string> const moved = m_pipeline.pause(cmd.delAll);
    cmd.ok = true;
    cmd.msg = cmd.delAll ? "Paused; " + std::to_string(moved.size()) +
                               " waiting item(s) moved to the rejected folder" + listedBriefly(moved)
                         : std::string(already ? "Already paused" : "Paused");
  } catch (std::exception const& e) {
    cmd.ok = false;
    cmd.msg = std::string("Paused, but the waiting items could not all be moved: ") + e.what();
  }
  Log::inst().writeLine("INFO:", "qxlite-svc " + cmd.msg);
}

void SvcProcessor::visit(Ipc::Resume& cmd) {
  bool const wasPaused = m_pipeline.paused();
  m_pipeline.resume();
  cmd.ok = true;
  cmd.msg = wasPaused ? "Resumed" : "Already running";
  Log::inst().writeLine("INFO:", "qxlite-svc " + cmd.msg);
}

void SvcProcessor::visit(Ipc::ServerRequest& cmd) {
  ServerCall call;
  {
    std::string method;
    json::Object params;
    std::unique_ptr<Inet::InetCfg> inet;
    try {
      method = cmd.callName();
      params = cmd.jParams();
      inet = cmd.pInetCfg();
    } catch (json::Exc const& e) {
      cmd.payload = errorPayload(std::string("the request is malformed: ") + e.what());
      return;
    }
    if (ownMethod(method, params, cmd.payload)) return;
    if (method == kNotifyTestMethod) {
      notifyTest(cmd);
      return;
    }
    Settings const settings = current();
    call.cfg = inet ? *inet : settings.InetConfig;
    if (call.cfg.serverAddress().empty()) {
      cmd.payload = errorPayload("no server address is set in the configuration");
      return;
    }
    json::Object body;
    body.setAt("method", json::Value(method));
    body.setAt("params", params);
    call.body = json::jsonToString(body, false);
    call.debugLog = settings.EnableCurlDbgLog;
    call.timeoutSecs = m_httpTimeoutSecs;
  }  // every JSON handle of the request is gone before a worker may run
  // JSON reference counts are not atomic: the worker makes the answer, and
  // only the transport's thread puts it into the command, which the
  // transport's code shares.
  auto const answer = std::make_shared<std::optional<json::Object>>();
  auto const request = std::static_pointer_cast<Ipc::ServerRequest>(cmd.shared_from_this());
  auto const wait = std::make_shared<Ipc::DeferredResponse>(cmd, [request, answer] {
    request->payload = std::move(**answer);
    request->sendResp();
  });
  bool const queued = m_workers.submit([wait, answer, call = std::move(call)] {
    answer->emplace(callServer(call, [wait] { return wait->cancelled(); }));
    wait->complete();
  });
  if (!queued) {
    answer->emplace(errorPayload(m_workers.busyText()));
    wait->complete();
  }
}

void SvcProcessor::notifyTest(Ipc::ServerRequest& cmd) {
  if (!m_notifier) {
    cmd.payload = json::Object();
    cmd.payload.setAt("msg", json::Value("this service sends no e-mail notices"));
    return;
  }
  // As for a server call: the worker makes plain values, the transport's
  // thread the JSON.
  auto const outcome = std::make_shared<MailOutcome>();
  auto const request = std::static_pointer_cast<Ipc::ServerRequest>(cmd.shared_from_this());
  auto const wait = std::make_shared<Ipc::DeferredResponse>(cmd, [request, outcome] {
    json::Object answer;
    if (outcome->done) {
      answer.setAt("ok", json::Value(json_true()));
      answer.setAt("reply", json::Value(outcome->reply));
    } else {
      answer.setAt("msg", json::Value(outcome->reply));
    }
    request->payload = answer;
    request->sendResp();
  });
  Notifier* const notifier = m_notifier;
  bool const queued = m_workers.submit([wait, outcome, notifier] {
    // Abandoned within about a second when the client leaves.
    *outcome = notifier->sendTest([wait] { return wait->cancelled(); });
    Log::inst().writeLine(outcome->done ? "INFO:" : "WARNING:",
                          std::string("qxlite-svc ") + (outcome->done ? "mailed a test notice as asked: "
                                                                      : "cannot mail a test notice: ") +
                              outcome->reply);
    wait->complete();
  });
  if (!queued) {
    *outcome = MailOutcome{false, m_workers.busyText()};
    wait->complete();
  }
}

bool SvcProcessor::ownMethod(std::string const& method, json::Object const& params, json::Object& answer) {
  struct JobMethod {
    qxapp::JobAction action;
    std::string (Pipeline::*act)(std::string const&);
  };
  static JobMethod const kJobMethods[] = {{qxapp::JobAction::Cancel, &Pipeline::cancel},
                                          {qxapp::JobAction::Retry, &Pipeline::retry}};
  for (JobMethod const& m : kJobMethods) {
    if (method != qxapp::jobMethod(m.action)) continue;
    json::Value const id = params["id"];
    std::string const why = !id.isString() ? std::string("\"id\" must be the job's id, a text")
                                           : (m_pipeline.*m.act)(id.asStringSafe());
    answer = json::Object();
    if (why.empty()) {
      answer.setAt("ok", json::Value(json_true()));
      Log::inst().writeLine("INFO:", std::string("qxlite-svc ") + qxapp::jobDoneWord(m.action) + " job " + id.asStringSafe() + " as asked");
    } else {
      answer.setAt("msg", json::Value(why));
    }
    return true;
  }
  return false;
}

void SvcProcessor::visit(Ipc::TestCfg& cmd) {
  ServicePort service;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    service = m_service;
  }
  cmd.runner = std::make_unique<ConfigTestRunner>(cmd, service, m_pipeline.credentialsFile(), m_httpTimeoutSecs,
                                                  &m_workers, m_notifier ? &m_notifier->senderOptions() : nullptr);
}

void SvcProcessor::visit(Ipc::FileDrop& cmd) {
  cmd.setResp();
  if (cmd.ok) {
    Log::inst().writeLine("INFO:", "qxlite-svc received a drop of " + std::to_string(cmd.files.size()) +
                         " file(s)");
    m_pipeline.scanNow();
  }
}

void SvcProcessor::visit(Ipc::GetUploads& cmd) {
  cmd.payload = m_pipeline.uploads();
  // What `qxlite status` tells of the service itself.
  json::Object service;
  service.setAt("version", json::Value(LITE_VERSION_STR));
  service.setAt("pid", json::Value(static_cast<json_int_t>(::getpid())));
  service.setAt("started", json::Value(static_cast<json_int_t>(m_started)));
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    service.setAt("port", json::Value(static_cast<json_int_t>(m_service.port)));
  }
  service.setAt("config", json::Value(m_configFile.string()));
  cmd.payload.setAt("service", service);
}

}  // namespace qxsvc
