// qxlite-svc: the reference service.
//
// Loads its configuration (a missing file means defaults; an unreadable,
// malformed or refused one stops the start with a message that names the file
// and exit status 2), makes its spool folders, proves every IPC client by the
// secret token, serves the nine commands on loopback, and uploads the items
// that arrive in its incoming folder (see apps/svc/upload/Pipeline.h).
// It runs in the foreground: with --foreground its log goes to standard
// error (as under systemd, whose journal keeps it), otherwise to a log file.
// SIGTERM and SIGINT stop it cleanly: no new connection is taken, exchanges
// in flight end, and nothing it should keep is removed. SIGHUP reads the
// configuration file again (SvcProcessor::reload()).
// Under systemd (Type=notify) it says READY=1 once it serves, what it does
// in STATUS= lines, RELOADING=1 and READY=1 around a reload, STOPPING=1, and
// WATCHDOG=1 from its upload loop (SystemdNotify.h).
#include "apps/CommandLine.h"
#include "apps/ConfigFile.h"
#include "apps/RuntimeFile.h"
#include "apps/svc/HttpClient.h"
#include "apps/svc/SpoolDrop.h"
#include "apps/svc/SpoolPolicy.h"
#include "apps/svc/FolderFd.h"
#include "apps/svc/notify/Notifier.h"
#include "apps/svc/upload/Pipeline.h"
#include "apps/svc/SvcProcessor.h"
#include "apps/svc/SystemdNotify.h"
#include "ipc/IpcCmdsLite.h"
#include "shared/CmdServer.h"
#include "shared/Log.h"
#include "shared/SecretToken.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <boost/filesystem/operations.hpp>

#include <cstdlib>
#include <ctime>
#include <iostream>

namespace fs = boost::filesystem;

namespace {

struct Options {
  std::string configFile;
  std::string tokenFile;
  std::string tokenGroup;
  std::string logFile;
  std::string runtimeFolder;
  int port = -1;  // -1: the configuration's
  bool foreground = false;
  bool verbose = false;
  unsigned threads = 4;
  double scanSecs = 60.0;
  double settleSecs = 2.0;
  double retrySecs = 30.0;
  long httpTimeoutSecs = 30;
  std::string stateFolder;
  std::string credentialsFile;
  unsigned multipartFromMib = 64;
  unsigned partMib = 32;
  double mailWindowSecs = 300.0;
  unsigned mailsPerHour = 12;
  std::string mailCaFile;
};

// Where the journal lives when --state-dir is not given.
fs::path defaultStateFolder(fs::path const& configFile) {
  return ::geteuid() == 0 ? fs::path("/var/lib/qxlite") : configFile.parent_path() / "state";
}

// "$XDG_DATA_HOME/qxlite", else "$HOME/.local/share/qxlite"; empty without
// either.
fs::path personalDataFolder() {
  char const* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg && *xdg == '/') return fs::path(xdg) / "qxlite";
  char const* home = std::getenv("HOME");
  if (home && *home == '/') return fs::path(home) / ".local" / "share" / "qxlite";
  return fs::path();
}

std::chrono::milliseconds millis(double secs) { return std::chrono::milliseconds(static_cast<long long>(secs * 1000)); }

bool g_logToFile = false;

// CLOCK_MONOTONIC in microseconds, which the service manager wants beside
// RELOADING=1.
long long monotonicUsec() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

int serve(Options const& opt) {
  fs::path const configFile = opt.configFile.empty() ? Settings::OLD_CFG_FILE_PATH() : fs::path(opt.configFile);
  boost::system::error_code missing;
  bool const defaults = !fs::exists(fs::symlink_status(configFile, missing));
  Settings settings = qxsvc::acceptConfigFile(configFile);
  std::string defaultsNote;
  if (defaults && ::geteuid() != 0) {
    // A person's own service without a configuration keeps its folders in
    // the person's data folder: it could not write /var.
    fs::path const data = personalDataFolder();
    if (!data.empty()) {
      defaultsNote = ", with its spool folders under \"" + data.string() + "\"";
      settings.ReceiveFolder = data / "in";
      settings.SpoolFolder = data / "out";
      settings.BackupFolder = data / "backup";
      settings.fix();
    }
  }
  std::string const why = qxsvc::prepareFolders(settings);
  if (!why.empty()) throw qxapp::ConfigError("the configuration \"" + configFile.string() + "\": " + why);

  fs::path const tokenFile = opt.tokenFile.empty() ? Ipc::SecretToken::defaultPath() : fs::path(opt.tokenFile);
  Ipc::SecretToken const token = Ipc::SecretToken::loadOrCreate(tokenFile, opt.tokenGroup);

  if (!opt.foreground || !opt.logFile.empty()) {
    fs::path const logFile = !opt.logFile.empty() ? fs::path(opt.logFile)
                             : ::geteuid() == 0 ? fs::path("/var/log/qxlite-svc.log")
                                                : configFile.parent_path() / "qxlite-svc.log";
    // Said once where a person starting it sees it.
    std::cerr << "qxlite-svc: the log goes to \"" << logFile.string() << "\"\n" << std::flush;
    Log::inst().toFile(logFile);
    g_logToFile = true;
  }
  if (defaults) {
    Log::inst().writeLine("INFO:", "qxlite-svc found no configuration file at \"" + configFile.string() +
                                       "\": using defaults" + defaultsNote);
  }

  // Signals are taken by sigwait below, never by a handler on another
  // thread: blocked here, before any thread starts, so every thread inherits
  // the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  qxsvc::HttpClient::globalInit();

  qxsvc::PipelineOptions pipelineOptions;
  pipelineOptions.stateFolder = opt.stateFolder.empty() ? defaultStateFolder(configFile) : fs::path(opt.stateFolder);
  pipelineOptions.credentialsFile = opt.credentialsFile;
  pipelineOptions.rescanInterval = millis(opt.scanSecs);
  pipelineOptions.settleTime = millis(opt.settleSecs);
  pipelineOptions.retryFirst = millis(opt.retrySecs);
  pipelineOptions.holdProbe = millis(opt.retrySecs);
  pipelineOptions.engine.multipartThreshold = std::uint64_t{opt.multipartFromMib} << 20;
  pipelineOptions.engine.partSize = std::uint64_t{opt.partMib} << 20;
  qxsvc::SystemdNotify const notify = qxsvc::SystemdNotify::fromEnvironment();
  // Beaten by the upload loop only: a stuck loop stops the watchdog's pings.
  auto heartbeat = std::make_shared<qxsvc::NotifyHeartbeat>(notify);
  if (notify.active()) {
    pipelineOptions.heartbeat = [heartbeat](std::string const& activity) { return heartbeat->beat(activity); };
  }
  qxsvc::OpenedFolder const state = qxsvc::openSpoolFolder(pipelineOptions.stateFolder, qxsvc::MakeMissing::yes);
  if (!state.why.empty()) throw qxapp::ConfigError("the state folder: " + state.why);
  qxsvc::NotifierOptions notifierOptions;
  notifierOptions.window = std::chrono::seconds(static_cast<long long>(opt.mailWindowSecs));
  notifierOptions.mailsPerHour = opt.mailsPerHour;
  notifierOptions.retryFirst = millis(opt.retrySecs);
  notifierOptions.sender.caFile = opt.mailCaFile;
  // Outlives the pipeline, which hands it its events.
  qxsvc::Notifier notifier(settings, notifierOptions);
  pipelineOptions.onEvent = [&notifier](qxsvc::PipelineEvent const& event) { notifier.post(event); };
  qxsvc::Pipeline pipeline(settings, pipelineOptions);
  // Outlives the server, whose stop() waits for the server calls it runs.
  qxsvc::WorkerPool workers;
  auto processor =
      std::make_shared<qxsvc::SvcProcessor>(settings, configFile, pipeline, workers, opt.httpTimeoutSecs, &notifier);
  Ipc::IoThreads io(opt.threads);
  Ipc::CmdServerOptions serverOptions;
  serverOptions.port = opt.port >= 0 ? static_cast<std::uint16_t>(opt.port) : settings.IpcPort;
  serverOptions.forceIp4 = settings.IpcForceIP4;
  serverOptions.idleTimeout = std::chrono::seconds(settings.MaxConnIdleSecs);
  qxsvc::SvcProcessor* const proc = processor.get();
  Ipc::CmdServer server(
      io, serverOptions, token,
      [proc](Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p) -> std::shared_ptr<Ipc::CmdI> {
        return qxsvc::makeServiceCmd(type, p, proc->incomingFolder());
      },
      processor);
  server.start();  // a port in use stops the start here, before anything moves
  pipeline.start();
  notifier.start(pipeline.journal());
  processor->setServicePort(server.port(), opt.port >= 0);
  // Where clients that were not told find the service: there before the
  // line that says it serves.
  fs::path const runtimeFolder = opt.runtimeFolder.empty() ? qxapp::serviceRuntimeFolder() : fs::path(opt.runtimeFolder);
  if (!runtimeFolder.empty()) {
    try {
      qxapp::RuntimeFacts facts;
      facts.pid = static_cast<long>(::getpid());
      facts.port = server.port();
      facts.version = LITE_VERSION_STR;
      facts.configFile = fs::absolute(configFile).string();
      facts.tokenFile = fs::absolute(tokenFile).string();
      facts.started = static_cast<std::int64_t>(std::time(nullptr));
      qxapp::writeRuntimeFacts(runtimeFolder, facts);
    } catch (std::exception const& e) {
      Log::inst().writeLine("WARNING:", std::string("qxlite-svc cannot write its runtime file (clients must be given --port and --token-file): ") +
                                                 e.what());
    }
  }

  Log::inst().writeLine("INFO:", "qxlite-svc " + std::string(LITE_VERSION_STR) + " serving on 127.0.0.1:" + std::to_string(server.port()) +
                       " with configuration \"" + configFile.string() + "\", token file \"" +
                       tokenFile.string() + "\", incoming folder \"" + settings.ReceiveFolder.string() + "\"");

  notify.send("READY=1");

  int signal = 0;
  for (;;) {
    sigwait(&signals, &signal);
    if (signal != SIGHUP) break;
    notify.send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(monotonicUsec()));
    processor->reload();
    notify.send("READY=1");
  }
  notify.send("STOPPING=1");
  Log::inst().writeLine("INFO:", std::string("qxlite-svc stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));
  if (!runtimeFolder.empty()) qxapp::removeRuntimeFacts(runtimeFolder);
  server.stop();
  io.stop();
  pipeline.stop();
  notifier.stop();  // within about a second, even with a mail in flight
  Log::inst().writeLine("INFO:", "qxlite-svc stopped");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  CLI::App app{"qxlite-svc: the QXLite reference service"};
  app.set_version_flag("--version", std::string("qxlite-svc ") + QX_VERSION, "Print the version and exit");
  app.add_option("--config", opt.configFile, "Configuration file (default: " + Settings::OLD_CFG_FILE_PATH().string() + ")");
  app.add_option("--token-file", opt.tokenFile, "Secret token file (default: " + Ipc::SecretToken::defaultPath().string() + ")");
  app.add_option("--token-group", opt.tokenGroup, "Group whose members may drive the service (token file mode 0640)");
  app.add_option("--port", opt.port, "IPC port instead of the configuration's (0: the system chooses)")->check(qxapp::portNumber(0));
  app.add_option("--runtime-dir", opt.runtimeFolder,
                 "Folder of the runtime file through which clients find the service (default: /run/qxlite as root, "
                 "else $XDG_RUNTIME_DIR/qxlite)");
  app.add_flag("--foreground", opt.foreground, "Log to standard error (as under systemd) instead of the log file");
  app.add_option("--log-file", opt.logFile, "Log file (default without --foreground: /var/log/qxlite-svc.log as root, else beside the configuration file)");
  app.add_flag("--verbose", opt.verbose, "Write TRACE lines");
  app.add_option("--threads", opt.threads,
                 "Transport threads: one runs, the others take over from a held one (at least 2)")
      ->check(CLI::Range(2u, 64u));
  app.add_option("--scan-interval", opt.scanSecs,
                 "Seconds between full scans of the incoming folder (arrivals are seen at once besides)")
      ->check(CLI::Range(0.05, 3600.0));
  app.add_option("--settle-time", opt.settleSecs,
                 "Seconds a file copied into the incoming folder must stay unchanged before it is taken")
      ->check(CLI::Range(0.0, 3600.0));
  app.add_option("--retry-after", opt.retrySecs,
                 "Seconds before a failed upload is tried again (doubling up to an hour), and a failed e-mail notice "
                 "(doubling up to half an hour)")
      ->check(CLI::Range(0.01, 3600.0));
  app.add_option("--multipart-from", opt.multipartFromMib,
                 "MiB from which a file goes to S3 in parts that survive a restart (default 64)")
      ->check(CLI::Range(5u, 1048576u));
  app.add_option("--part-size", opt.partMib,
                 "MiB of one file on the wire at once in a multipart upload, the most a restart sends again "
                 "(default 32: two parts of 16 at once; from 5 to 9: one part)")
      ->check(CLI::Range(5u, 5120u));
  app.add_option("--state-dir", opt.stateFolder,
                 "Folder of the upload journal (default: /var/lib/qxlite as root, else \"state\" beside the configuration file)");
  app.add_option("--credentials", opt.credentialsFile,
                 "The upload account's file, mode 0600 (default: $CREDENTIALS_DIRECTORY/upload, else /etc/QXLite/credentials.json)");
  app.add_option("--mail-window", opt.mailWindowSecs,
                 "Seconds the first e-mail notice of a kind waits for others to go in the same mail (default 300)")
      ->check(CLI::Range(0.0, 86400.0));
  app.add_option("--mail-per-hour", opt.mailsPerHour,
                 "E-mail notices sent at most in an hour; the next mail counts those left out (default 12)")
      ->check(CLI::Range(1u, 3600u));
  app.add_option("--mail-ca-file", opt.mailCaFile,
                 "Certificate authorities (PEM) that the SMTP server's certificate is checked against, instead of the system's");
  app.add_option("--http-timeout", opt.httpTimeoutSecs, "Seconds an HTTP request to the server may take")->check(CLI::Range(1L, 600L));
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    std::cerr << "qxlite-svc: " << e.what() << " (see qxlite-svc --help)\n";
    return 2;
  }
  g_LogVerbose = opt.verbose;
  // Paths given relative to where the service was started: the runtime file
  // hands them to clients that run elsewhere.
  for (std::string* path : {&opt.configFile, &opt.tokenFile, &opt.logFile, &opt.runtimeFolder, &opt.stateFolder,
                            &opt.credentialsFile, &opt.mailCaFile}) {
    if (!path->empty()) *path = fs::absolute(*path).lexically_normal().string();
  }
  try {
    return serve(opt);
  } catch (std::exception const& e) {
    std::cerr << "qxlite-svc: " << e.what() << "\n";
    if (g_logToFile) Log::inst().writeLine("ERR:", std::string("qxlite-svc cannot start: ") + e.what());
    return 2;
  }
}
