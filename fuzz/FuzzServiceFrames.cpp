// The service's frame reader, as an authenticated client reaches it: each
// input is what a client sends once the handshake is done, request frames,
// bodies and a drop's contents back to back.
//
// Once per process, a real CmdServer listens on loopback with the service's
// command factory and SvcProcessor, on spool folders in a sandbox of its own
// (the upload pipeline is made but never started, so nothing leaves the
// machine). Per input: connect, prove the token with the transport's own
// handshake functions, send the input, half-close, read until the service
// closes, and wait until it holds no connection. Then the sandbox and the
// processor are made afresh, so that an input that fails does so alone.
//
// Findings besides the sanitizers' reports (each aborts):
//  - the service refuses a valid handshake, or answers with bytes that are
//    not a status frame, or a refusal that is not followed by its message
//    and the end of the connection;
//  - anything appears beside the sandbox (a drop's or a save's name that
//    escapes).
//
// Commands that would reach the network are answered by the target itself:
// server calls other than the service's own job methods, and the
// configuration test (a runner that checks the folders only). A SaveCfg's
// folders are taken as relative to the sandbox and the save goes to the real
// processor only when they stay inside it.
//
//   FuzzServiceFrames --write-seeds=DIR   writes the seed corpus and exits
//   QXFUZZ_SHOW_ANSWERS=1 FuzzServiceFrames INPUT...   prints what the service answered
#include "apps/ConfigFile.h"
#include "apps/svc/SpoolPolicy.h"
#include "apps/svc/SvcProcessor.h"
#include "apps/svc/WorkerPool.h"
#include "apps/svc/upload/Pipeline.h"
#include "fuzz/FuzzUtil.h"
#include "ipc/IpcCmdsLite.h"
#include "ipc/MsgsUItoSvc.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"
#include "shared/transport/Handshake.h"
#include "shared/transport/Wire.h"
#include "tests/WireBytes.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace fs = boost::filesystem;
namespace hs = Ipc::transport::handshake;
namespace wire = Ipc::wire;

namespace {

[[noreturn]] void finding(std::string const& what) {
  std::fprintf(stderr, "FuzzServiceFrames: %s\n", what.c_str());
  std::abort();
}

// ---------------------------------------------------------------------------
// The seeds.

std::string body(std::string const& json) { return qxtest::jsonBody(json); }
std::string frame(std::uint8_t type, std::uint8_t flags = 0) { return qxtest::requestFrame(type, flags); }
std::string jsonFrame(std::uint8_t type) { return frame(type, wire::kFlagJsonBody); }

struct Seed {
  char const* name;
  std::string bytes;
};

std::vector<Seed> seeds() {
  std::string const saveBody =
      R"({"ReceiveFolder":"/in","SpoolFolder":"/out","BackupFolder":"/backup",)"
      R"("SrvFileExts":["pdf","tif"],"MinFilesToZip":2})";
  std::string const isRunning = frame(Ipc::IS_RUNNING_TYPE);
  std::string wrongVersion = isRunning;
  wrongVersion[2] = static_cast<char>(wire::kVersion + 1);
  std::string oversize = jsonFrame(Ipc::SAVE_CFG_TYPE);
  unsigned char huge[4];
  wire::putU32(huge, 0xffffffffu);
  oversize += qxtest::wireBytes(huge, sizeof huge);
  return {
      {"isrunning", isRunning},
      {"getcfg", frame(Ipc::GET_CFG_TYPE)},
      {"getuploads", frame(Ipc::GET_UPLOADS_TYPE)},
      {"pause-resume", jsonFrame(Ipc::PAUSE_TYPE) + body(R"({"delAll":true})") + frame(Ipc::RESUME_TYPE) + isRunning},
      {"savecfg", jsonFrame(Ipc::SAVE_CFG_TYPE) + body(saveBody) + frame(Ipc::GET_CFG_TYPE)},
      {"drop-one", jsonFrame(Ipc::FILE_DROP_TYPE) + body(R"({"files":[{"name":"a.pdf","size":5}]})") + "%PDF-"},
      {"drop-two", jsonFrame(Ipc::FILE_DROP_TYPE) +
                       body(R"({"files":[{"name":"a.pdf","size":3},{"name":"b.tif","size":4}]})") + "abcII*A"},
      {"drop-then-uploads", jsonFrame(Ipc::FILE_DROP_TYPE) + body(R"({"files":[{"name":"c.txt","size":2}]})") +
                                "hi" + frame(Ipc::GET_UPLOADS_TYPE)},
      {"call-own", jsonFrame(Ipc::SERVER_REQUEST_TYPE) +
                       body(R"({"method":"qxlite.retry","params":{"id":"20261123T203911Z-3f9a2c1b"}})")},
      {"call-server", jsonFrame(Ipc::SERVER_REQUEST_TYPE) + body(R"({"method":"ping","params":{"a":1}})")},
      {"testcfg", jsonFrame(Ipc::TEST_CFG_TYPE) + body(R"({"ReceiveFolder":"/tmp/in","SpoolFolder":"/tmp/out"})")},
      {"truncated", jsonFrame(Ipc::SAVE_CFG_TYPE) + body(saveBody).substr(0, 20)},
      {"wrong-version", wrongVersion},
      {"oversize", oversize},
  };
}

void writeSeeds(fs::path const& folder) {
  fs::create_directories(folder);
  for (Seed const& seed : seeds()) {
    fs::path const file = folder / seed.name;
    std::ofstream out(file.string(), std::ios::binary | std::ios::trunc);
    out.write(seed.bytes.data(), static_cast<std::streamsize>(seed.bytes.size()));
    if (!out.flush()) throw std::runtime_error("cannot write the seed \"" + file.string() + "\"");
  }
}

// ---------------------------------------------------------------------------
// The service.

// A folder of its own per process: the spool folders and the configuration
// file live in top/svc; nothing else may appear in top.
class Sandbox {
 public:
  Sandbox() {
    std::string pattern = (fs::temp_directory_path() / "qxfuzz-frames-XXXXXX").string();
    if (!::mkdtemp(&pattern[0])) finding("no sandbox: " + std::string(std::strerror(errno)));
    m_top = pattern;
    m_root = m_top / "svc";
  }
  ~Sandbox() { remove(); }
  Sandbox(Sandbox const&) = delete;
  Sandbox& operator=(Sandbox const&) = delete;

  fs::path const& root() const { return m_root; }

  void remove() const {
    boost::system::error_code ec;
    fs::remove_all(m_top, ec);
  }

  // Whether path lies in the root, by its components alone (it may not
  // exist yet): no "." or ".." on the way.
  bool holds(fs::path const& path) const {
    auto r = m_root.begin();
    auto p = path.begin();
    for (; r != m_root.end(); ++r, ++p) {
      if (p == path.end() || *p != *r) return false;
    }
    for (; p != path.end(); ++p) {
      if (*p == "." || *p == "..") return false;
    }
    return true;
  }

  // Removes what the last input left in the root but the folders of keep
  // (emptied); a finding when anything stands beside the root. Removing and
  // making the folders again for every input would cost more than the input.
  void reset(std::vector<fs::path> const& keep) const {
    for (fs::directory_iterator it(m_top), end; it != end; ++it) {
      if (it->path() != m_root) finding("\"" + it->path().string() + "\" appeared beside the service's folder");
    }
    fs::create_directories(m_root);
    clear(m_root, keep);
  }

 private:
  // Whether folder is one of keep or lies on the way to one.
  static bool onTheWay(fs::path const& folder, std::vector<fs::path> const& keep) {
    std::string const prefix = folder.string() + "/";
    for (fs::path const& kept : keep) {
      if (kept == folder || kept.string().compare(0, prefix.size(), prefix) == 0) return true;
    }
    return false;
  }

  static void clear(fs::path const& folder, std::vector<fs::path> const& keep) {
    std::vector<fs::path> entries;
    for (fs::directory_iterator it(folder), end; it != end; ++it) entries.push_back(it->path());
    for (fs::path const& entry : entries) {
      if (onTheWay(entry, keep) && fs::is_directory(fs::symlink_status(entry))) {
        clear(entry, keep);
      } else {
        boost::system::error_code ec;
        fs::remove_all(entry, ec);
      }
    }
  }

  fs::path m_top;
  fs::path m_root;
};

// The configuration test without the network: one step that checks the
// folders of the configuration it was given.
class FolderCheckRunner final : public Ipc::TestCfg::TestRunnerI {
 public:
  explicit FolderCheckRunner(Ipc::TestCfg& cmd) : m_cmd(cmd) {}

  bool runStep() override {
    if (m_done) return false;
    m_done = true;
    std::deque<std::string>& lines = m_cmd.respMsgs()->lines;
    try {
      std::unique_ptr<Settings> const settings = m_cmd.pSetts();
      std::string const why = qxsvc::checkFolders(*settings);
      lines.push_back(why.empty() ? Ipc::TST_LINE_START_PASS + "the folders" : Ipc::TST_LINE_START_ERR + why);
    } catch (std::exception const& e) {
      lines.push_back(Ipc::TST_LINE_START_ERR + e.what());
    }
    return true;
  }

 private:
  Ipc::TestCfg& m_cmd;
  bool m_done = false;
};

// The service's processor, made afresh per input, with the visits that
// would reach the network or leave the sandbox answered here.
class SandboxedProcessor final : public Ipc::CmdProcessorLiteI {
 public:
  SandboxedProcessor(Sandbox const& sandbox, qxsvc::Pipeline& pipeline)
      : m_sandbox(sandbox), m_pipeline(pipeline) {}

  // The settings every input starts from: the spool folders in the sandbox.
  Settings baseSettings() const {
    Settings settings{json::Object()};  // the defaults
    settings.ReceiveFolder = m_sandbox.root() / "in";
    settings.SpoolFolder = m_sandbox.root() / "out";
    settings.BackupFolder = m_sandbox.root() / "backup";
    return settings;
  }

  // A fresh service: its folders made and empty, nothing else in the
  // sandbox, not paused, its settings the base.
  void renew() {
    Settings const settings = baseSettings();
    std::vector<fs::path> keep;
    for (qxsvc::SpoolFolder const& folder : qxsvc::spoolFolders(settings)) keep.push_back(folder.path);
    m_sandbox.reset(keep);
    std::string const why = qxsvc::prepareFolders(settings);
    if (!why.empty()) finding("the sandbox's folders cannot be used: " + why);
    m_pipeline.setSettings(settings);
    m_pipeline.resume();
    auto next =
        std::make_shared<qxsvc::SvcProcessor>(settings, m_sandbox.root() / "config.json", m_pipeline, m_workers, 1);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_service = std::move(next);
  }

  fs::path incomingFolder() const { return service()->incomingFolder(); }

  void visit(Ipc::IsRunning& cmd) override { service()->visit(cmd); }
  void visit(Ipc::GetCfg& cmd) override { service()->visit(cmd); }
  void visit(Ipc::Pause& cmd) override { service()->visit(cmd); }
  void visit(Ipc::Resume& cmd) override { service()->visit(cmd); }
  void visit(Ipc::FileDrop& cmd) override { service()->visit(cmd); }
  void visit(Ipc::GetUploads& cmd) override { service()->visit(cmd); }

  void visit(Ipc::SaveCfg& cmd) override {
    for (char const* key : {"ReceiveFolder", "SpoolFolder", "BackupFolder"}) {
      json::Value const given = cmd.payload[key];
      if (given.empty()) {
        cmd.payload.setAt(key, json::Value(defaultFolder(key).string()));
      } else if (given.isString()) {
        cmd.payload.setAt(key, json::Value((m_sandbox.root().string() + given.asStringSafe())));
      }
    }
    try {
      Settings const next = qxapp::settingsFromObject(cmd.payload, "the configuration");
      for (fs::path const* folder : {&next.ReceiveFolder, &next.SpoolFolder, &next.BackupFolder}) {
        if (!m_sandbox.holds(*folder)) {
          cmd.ok = false;
          cmd.msg = "Configuration not saved: \"" + folder->string() + "\" is outside the sandbox";
          return;
        }
      }
    } catch (std::exception const&) {
      // The service refuses it with its own words.
    }
    service()->visit(cmd);
  }

  void visit(Ipc::ServerRequest& cmd) override {
    std::string method;
    try {
      method = cmd.callName();
    } catch (json::Exc const&) {
      service()->visit(cmd);  // refused before any call
      return;
    }
    if (method == "qxlite.cancel" || method == "qxlite.retry") {
      service()->visit(cmd);
      return;
    }
    json::Object answer;
    answer.setAt("error", json::Value("this service makes no server calls"));
    cmd.payload = answer;
  }

  void visit(Ipc::TestCfg& cmd) override { cmd.runner = std::make_unique<FolderCheckRunner>(cmd); }

 private:
  fs::path defaultFolder(std::string const& key) const {
    Settings const base = baseSettings();
    if (key == "ReceiveFolder") return base.ReceiveFolder;
    if (key == "SpoolFolder") return base.SpoolFolder;
    return base.BackupFolder;
  }

  std::shared_ptr<qxsvc::SvcProcessor> service() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_service;
  }

  Sandbox const& m_sandbox;
  // Never given work here: the visits that would use it are answered above.
  qxsvc::WorkerPool m_workers{1, 1};
  qxsvc::Pipeline& m_pipeline;

  mutable std::mutex m_mutex;
  std::shared_ptr<qxsvc::SvcProcessor> m_service;  // guarded by m_mutex
};

// Short time-outs: an input ends with the client's half-close, so none is
// waited for unless the service misses that end.
Ipc::CmdServerOptions serverOptions() {
  Ipc::CmdServerOptions options;
  options.forceIp4 = true;
  options.helloTimeout = std::chrono::seconds(2);
  options.idleTimeout = std::chrono::seconds(2);
  options.transferTimeout = std::chrono::seconds(2);
  return options;
}

// The service as qxlite-svc assembles it, on the sandbox, and the client that
// runs each input against it.
class Service {
 public:
  Service()
      : m_token(Ipc::SecretToken::generate()),
        m_pipeline(Settings(json::Object()), pipelineOptions()),
        m_processor(std::make_shared<SandboxedProcessor>(m_sandbox, m_pipeline)),
        m_io(2),
        m_server(m_io, serverOptions(), m_token,
                 [processor = m_processor.get()](Ipc::CmdI::TypeCode type,
                                                 std::shared_ptr<Ipc::CmdProcessorI> const& p) {
                   return std::shared_ptr<Ipc::CmdI>(Ipc::createLiteCmd(type, p, processor->incomingFolder()));
                 },
                 m_processor) {
    m_processor->renew();
    m_server.start();
  }
  ~Service() {
    m_server.stop();
    m_io.stop();
  }
  Service(Service const&) = delete;
  Service& operator=(Service const&) = delete;

  void runInput(std::uint8_t const* data, std::size_t size);
  void removeSandbox() const { m_sandbox.remove(); }

 private:
  qxsvc::PipelineOptions pipelineOptions() const {
    qxsvc::PipelineOptions options;
    options.stateFolder = m_sandbox.root() / "state";  // never opened: the pipeline is not started
    return options;
  }
  int connect() const;
  void prove(int fd) const;
  void waitUntilIdle() const;

  bool const m_showAnswers = std::getenv("QXFUZZ_SHOW_ANSWERS") != nullptr;
  Sandbox m_sandbox;
  Ipc::SecretToken const m_token;
  qxsvc::Pipeline m_pipeline;
  std::shared_ptr<SandboxedProcessor> m_processor;
  Ipc::IoThreads m_io;
  Ipc::CmdServer m_server;
};

bool sendAll(int fd, char const* data, std::size_t len) {
  while (len > 0) {
    ssize_t const n = ::send(fd, data, len, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    len -= static_cast<std::size_t>(n);
  }
  return true;
}

// Reads exactly len bytes; fewer when the connection ends first.
std::string readExactly(int fd, std::size_t len) {
  std::string out(len, '\0');
  std::size_t got = 0;
  while (got < len) {
    ssize_t const n = ::recv(fd, &out[got], len - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  out.resize(got);
  return out;
}

// Reads to the end of the connection; false when it ended in an error (a
// reset) rather than the service's close.
bool readToEnd(int fd, std::string& out) {
  char buf[16384];
  for (;;) {
    ssize_t const n = ::recv(fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    out.append(buf, static_cast<std::size_t>(n));
  }
}

int Service::connect() const {
  int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) finding("no socket: " + std::string(std::strerror(errno)));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(m_server.port());
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
  // libFuzzer's timer signal may interrupt the connect, which then goes on
  // by itself: wait for its end.
  int error = errno;
  if (error == EINTR) {
    pollfd waiting{fd, POLLOUT, 0};
    while (::poll(&waiting, 1, -1) < 0 && errno == EINTR) {
    }
    socklen_t len = sizeof error;
    ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len);
    if (error == 0) return fd;
  }
  finding("cannot connect to the service: " + std::string(std::strerror(error)));
}

// The client's side of the handshake, with the transport's proofs.
void Service::prove(int fd) const {
  hs::Nonce const clientNonce = hs::freshNonce();
  std::string const hello = qxtest::helloBytes(clientNonce);
  if (!sendAll(fd, hello.data(), hello.size())) finding("the hello cannot be sent");
  std::string const status = readExactly(fd, wire::kFrameSize);
  if (status != qxtest::okFrame()) finding("the service answered the hello with " + qxtest::printable(status));
  std::string const challenge = readExactly(fd, wire::kChallengeSize);
  if (challenge.size() != wire::kChallengeSize) finding("the service's challenge is cut short");
  hs::Nonce serviceNonce;
  std::memcpy(serviceNonce.data(), challenge.data(), serviceNonce.size());
  auto const* serviceProof = reinterpret_cast<unsigned char const*>(challenge.data() + wire::kNonceSize);
  if (!hs::verify(m_token, hs::Role::Service, wire::kVersion, clientNonce, serviceNonce, serviceProof)) {
    finding("the service's proof does not hold");
  }
  hs::Proof const proof = hs::prove(m_token, hs::Role::Client, wire::kVersion, clientNonce, serviceNonce);
  if (!sendAll(fd, reinterpret_cast<char const*>(proof.data()), proof.size())) finding("the proof cannot be sent");
  std::string const accepted = readExactly(fd, wire::kFrameSize);
  if (accepted != qxtest::okFrame()) finding("the service refused a valid proof: " + qxtest::printable(accepted));
}

// The service has let go of every connection (and so of every command of
// the last input) before the next input renews its folders.
void Service::waitUntilIdle() const {
  while (m_server.connectionCount() != 0) std::this_thread::yield();
}

// What the service sends must start with a status frame, and a refusal must
// be its message and the end of the connection.
void checkAnswer(std::string const& answer) {
  if (answer.empty()) return;
  if (answer.size() < wire::kFrameSize) finding("the answer is cut inside its status frame: " + qxtest::printable(answer));
  auto const* status = reinterpret_cast<unsigned char const*>(answer.data());
  std::string const bad = wire::checkFrameStart(status);
  if (!bad.empty()) finding("the answer is " + bad + ": " + qxtest::printable(answer.substr(0, 64)));
  if (status[3] == wire::kStatusOk) return;
  if (status[3] != wire::kStatusRefused) finding("the status is neither ok nor refused: " + qxtest::printable(answer.substr(0, 8)));
  std::size_t const length = wire::getU32(status + 4);
  if (length > wire::kMaxMessage || answer.size() != wire::kFrameSize + length) {
    finding("a refusal that is not its message alone: " + qxtest::printable(answer.substr(0, 256)));
  }
}

void Service::runInput(std::uint8_t const* data, std::size_t size) {
  waitUntilIdle();
  m_processor->renew();

  int const fd = connect();
  prove(fd);
  // The service may refuse and close before it has read everything; what it
  // answered is read all the same.
  sendAll(fd, reinterpret_cast<char const*>(data), size);
  ::shutdown(fd, SHUT_WR);
  std::string answer;
  bool const closedByService = readToEnd(fd, answer);
  ::close(fd);
  if (m_showAnswers) std::fprintf(stderr, "answer%s: %s\n", closedByService ? "" : " (reset)", qxtest::printable(answer).c_str());
  if (closedByService) checkAnswer(answer);
}

Service* g_service = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  std::string const flag = "--write-seeds=";
  for (int i = 1; i < *argc; ++i) {
    std::string const arg = (*argv)[i];
    if (arg.compare(0, flag.size(), flag) == 0) {
      writeSeeds(arg.substr(flag.size()));
      std::exit(0);
    }
  }
  qxfuzz::quietLog();
  ::signal(SIGPIPE, SIG_IGN);
  // For the whole process. At the end of the run only its sandbox goes: its
  // threads keep running until the process ends, since a transport thread
  // that ends after OpenSSL's own exit handler leaves OpenSSL's per-thread
  // state behind, which the leak check would report.
  g_service = new Service;
  std::atexit([] { g_service->removeSandbox(); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  g_service->runInput(data, size);
  return 0;
}
