// The lite commands over a real loopback connection: the transport's server
// (with the commands' factory and a test processor) and client, in one
// process and in two; the exact bytes that cross the connection, recorded by
// a forwarding relay between client and server; and a command that fails in
// the service.
#include "ipc/IpcCmdsLite.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"
#include "shared/transport/Wire.h"
#include "tests/IpcTestProcessor.h"
#include "tests/RawHandshake.h"
#include "tests/TestUtil.h"
#include "tests/WireBytes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using qxtest::parse;
using qxtest::text;

using qxtest::TestLiteProcessor;

using qxtest::okFrame;
std::string frame(std::uint8_t type, std::uint8_t flags) { return qxtest::requestFrame(type, flags); }
std::string body(std::string const& json) { return qxtest::jsonBody(json); }
std::string hex(std::string const& bytes) { return qxtest::printable(bytes); }

constexpr char kClientCfgText[] = R"({"AccountId":"acct-ui","KeyId":3,"UseDirName":true})";

Settings clientSettings() { return Settings(parse(kClientCfgText)); }

// The user interface's commands need a processor only for test lines.
std::shared_ptr<Ipc::CmdProcessorI> uiProcessor() {
  return std::make_shared<Ipc::CmdProcessorLiteI>();
}

// ---------------------------------------------------------------------------
// Expected bytes

// ---------------------------------------------------------------------------
// The two sides

// The service: its own transport threads, the test processor, a new token,
// listening on an IPv4 loopback port that the system chose.
struct Service {
  Service()
      : processor(std::make_shared<TestLiteProcessor>()),
        token(Ipc::SecretToken::generate()),
        server(io, options(), token, &qxtest::makeLiteCmd, processor) {
    server.start();
  }

  static Ipc::CmdServerOptions options() {
    Ipc::CmdServerOptions o;
    o.port = 0;
    o.forceIp4 = true;
    return o;
  }

  Ipc::IoThreads io;
  std::shared_ptr<TestLiteProcessor> processor;
  Ipc::SecretToken token;
  Ipc::CmdServer server;  // stopped first
};

// The user interface: its own transport threads and one client.
struct Ui {
  Ui(std::uint16_t port, Ipc::SecretToken const& token) : client(io, options(port), token) {}

  static Ipc::CmdClientOptions options(std::uint16_t port) {
    Ipc::CmdClientOptions o;
    o.port = port;
    return o;
  }

  Ipc::IoThreads io;
  Ipc::CmdClient client;  // closed first
};

// ---------------------------------------------------------------------------
// A forwarding relay on loopback that records both directions

void setNoDelay(int fd) {
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// Accepts connections on a loopback port of its own and forwards each to the
// target port, byte for byte. Bytes are recorded before they are forwarded,
// so once a peer has received something, the record holds it.
class Relay {
 public:
  explicit Relay(std::uint16_t target) : m_target(target) {
    m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    if (m_listen < 0 || ::bind(m_listen, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(m_listen, 16) != 0) {
      throw std::runtime_error(std::string("relay: cannot listen: ") + std::strerror(errno));
    }
    socklen_t len = sizeof addr;
    ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&addr), &len);
    m_port = ntohs(addr.sin_port);
    m_acceptThread = std::thread([this] { acceptLoop(); });
  }

  ~Relay() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopping = true;
      for (int fd : m_fds) ::shutdown(fd, SHUT_RDWR);
    }
    ::shutdown(m_listen, SHUT_RDWR);  // wakes the accept
    m_acceptThread.join();
    for (std::thread& t : m_pumps) t.join();
    for (int fd : m_fds) ::close(fd);
    ::close(m_listen);
  }

  Relay(Relay const&) = delete;
  Relay& operator=(Relay const&) = delete;

  std::uint16_t port() const { return m_port; }

  // Everything the client sent, over all connections.
  std::string toService() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_toService;
  }
  // Everything the service sent, over all connections.
  std::string toClient() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_toClient;
  }

 private:
  void acceptLoop() {
    while (true) {
      int const client = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) {
        if (errno == EINTR) continue;
        return;  // shut down
      }
      int const service = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in addr{};
      addr.sin_family = AF_INET;
      addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      addr.sin_port = htons(m_target);
      if (service < 0 || ::connect(service, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(client);
        if (service >= 0) ::close(service);
        continue;
      }
      setNoDelay(client);
      setNoDelay(service);
      std::lock_guard<std::mutex> lock(m_mutex);
      m_fds.push_back(client);
      m_fds.push_back(service);
      if (m_stopping) {
        ::shutdown(client, SHUT_RDWR);
        ::shutdown(service, SHUT_RDWR);
        return;
      }
      m_pumps.emplace_back([this, client, service] { pump(client, service, m_toService); });
      m_pumps.emplace_back([this, client, service] { pump(service, client, m_toClient); });
    }
  }

  void pump(int from, int to, std::string& record) {
    char buf[4096];
    while (true) {
      ssize_t const n = ::recv(from, buf, sizeof buf, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      {
        std::lock_guard<std::mutex> lock(m_mutex);
        record.append(buf, static_cast<std::size_t>(n));
      }
      ssize_t sent = 0;
      while (sent < n) {
        ssize_t const k = ::send(to, buf + sent, static_cast<std::size_t>(n - sent), MSG_NOSIGNAL);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) break;
        sent += k;
      }
      if (sent < n) break;
    }
    ::shutdown(to, SHUT_WR);  // pass the end of the stream on
  }

  std::uint16_t const m_target;
  int m_listen = -1;
  std::uint16_t m_port = 0;
  std::thread m_acceptThread;
  mutable std::mutex m_mutex;
  bool m_stopping = false;           // guarded by m_mutex
  std::vector<int> m_fds;            // guarded by m_mutex; closed by the destructor
  std::vector<std::thread> m_pumps;  // started by the accept thread, joined after it
  std::string m_toService;           // guarded by m_mutex
  std::string m_toClient;            // guarded by m_mutex
};

// Runs cmd and expects it to complete without error.
template <class Cmd>
void runOk(Ui& ui, std::shared_ptr<Cmd> const& cmd) {
  EXPECT_EQ("", ui.client.run(cmd)) << cmd->name();
}

}  // namespace

// ---------------------------------------------------------------------------
// Round trips in one process

class IpcEndToEnd : public ::testing::Test {
 protected:
  Service svc;
  Ui ui{svc.server.port(), svc.token};
};

TEST_F(IpcEndToEnd, IsRunningArrivesTrueAndFalse) {
  auto const running = std::make_shared<Ipc::IsRunning>(uiProcessor());
  runOk(ui, running);
  EXPECT_TRUE(running->running);

  svc.processor->running = false;
  auto const stopped = std::make_shared<Ipc::IsRunning>(uiProcessor());
  stopped->running = true;
  runOk(ui, stopped);
  EXPECT_FALSE(stopped->running);
}

TEST_F(IpcEndToEnd, GetCfgDeliversTheServiceRecord) {
  auto const cmd = std::make_shared<Ipc::GetCfg>(uiProcessor());
  runOk(ui, cmd);
  EXPECT_EQ(text(qxtest::serviceSettings().serialize()), text(cmd->payload));
  std::unique_ptr<Settings> const record = cmd->pSetts();
  EXPECT_TRUE(*record == qxtest::serviceSettings());
  EXPECT_EQ("acct-svc", record->AccountId);
  EXPECT_EQ(42, record->SpoolerId);
}

TEST_F(IpcEndToEnd, SaveCfgDeliversTheRecordAndBringsBackTheAnswer) {
  Settings const record = clientSettings();
  auto const cmd = std::make_shared<Ipc::SaveCfg>(uiProcessor(), record);
  runOk(ui, cmd);
  EXPECT_EQ(text(record.serialize()), svc.processor->savedCfgText());
  EXPECT_TRUE(cmd->ok);
  EXPECT_EQ("saved acct-ui", cmd->msg);
}

TEST_F(IpcEndToEnd, PauseCarriesDelAllEitherWay) {
  auto const keep = std::make_shared<Ipc::Pause>(uiProcessor(), false);
  runOk(ui, keep);
  EXPECT_EQ(0, svc.processor->lastDelAll());
  EXPECT_TRUE(keep->ok);
  EXPECT_EQ("paused", keep->msg);

  auto const discard = std::make_shared<Ipc::Pause>(uiProcessor(), true);
  runOk(ui, discard);
  EXPECT_EQ(1, svc.processor->lastDelAll());
  EXPECT_TRUE(discard->ok);
  EXPECT_EQ("paused, waiting items discarded", discard->msg);
}

TEST_F(IpcEndToEnd, ResumeBringsBackOkAndMsg) {
  auto const cmd = std::make_shared<Ipc::Resume>(uiProcessor());
  runOk(ui, cmd);
  EXPECT_TRUE(cmd->ok);
  EXPECT_EQ("resumed", cmd->msg);
}

TEST_F(IpcEndToEnd, ServerRequestDeliversMethodParamsAndInetCfg) {
  Inet::InetCfg inet("ui-version");
  inet.setServerAddress("srv.example.com");
  auto const withInet = std::make_shared<Ipc::ServerRequest>(
      uiProcessor(), "getQuota", parse(R"({"account":"a1","n":[1,2]})"), &inet);
  runOk(ui, withInet);
  EXPECT_EQ("getQuota", svc.processor->lastServerCallName());
  EXPECT_EQ("7.0.1", svc.processor->lastInetVersion());
  EXPECT_EQ(R"({"method":"getQuota","params":{"account":"a1","n":[1,2]},"server":"srv.example.com"})",
            text(withInet->payload));

  auto const without =
      std::make_shared<Ipc::ServerRequest>(uiProcessor(), "ping", json::Object(), nullptr);
  runOk(ui, without);
  EXPECT_EQ("ping", svc.processor->lastServerCallName());
  EXPECT_EQ("(none)", svc.processor->lastInetVersion());
  EXPECT_EQ(R"({"method":"ping","params":{}})", text(without->payload));
}

TEST_F(IpcEndToEnd, GetUploadsBringsBackTheServiceList) {
  auto const cmd = std::make_shared<Ipc::GetUploads>(uiProcessor());
  runOk(ui, cmd);
  EXPECT_EQ(qxtest::kUploadsText, text(cmd->payload));
}

TEST_F(IpcEndToEnd, AllSevenCommandsRunOverOneConnection) {
  runOk(ui, std::make_shared<Ipc::IsRunning>(uiProcessor()));
  runOk(ui, std::make_shared<Ipc::GetCfg>(uiProcessor()));
  runOk(ui, std::make_shared<Ipc::SaveCfg>(uiProcessor(), clientSettings()));
  runOk(ui, std::make_shared<Ipc::Pause>(uiProcessor(), true));
  runOk(ui, std::make_shared<Ipc::Resume>(uiProcessor()));
  runOk(ui, std::make_shared<Ipc::ServerRequest>(uiProcessor(), "m", json::Object(), nullptr));
  runOk(ui, std::make_shared<Ipc::GetUploads>(uiProcessor()));
  EXPECT_EQ(7, svc.processor->visits());
  EXPECT_EQ(1u, ui.client.connectionsMade());
}

TEST_F(IpcEndToEnd, QueuedCommandsCompleteInOrder) {
  std::mutex mutex;
  std::vector<std::string> order;
  std::promise<void> last;
  auto note = [&](std::shared_ptr<Ipc::CmdI> const& cmd, std::string const& error) {
    std::lock_guard<std::mutex> lock(mutex);
    order.push_back(std::string(cmd->name()) + (error.empty() ? "" : " " + error));
  };
  ui.client.execute(std::make_shared<Ipc::Pause>(uiProcessor(), true), note);
  ui.client.execute(std::make_shared<Ipc::GetUploads>(uiProcessor()), note);
  ui.client.execute(std::make_shared<Ipc::Resume>(uiProcessor()),
                    [&](std::shared_ptr<Ipc::CmdI> const& cmd, std::string const& error) {
                      note(cmd, error);
                      last.set_value();
                    });
  last.get_future().wait();
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ((std::vector<std::string>{"Pause", "\"Get Uploads\"", "Resume"}), order);
}

// ---------------------------------------------------------------------------
// A visit that throws

TEST(IpcServiceFailure, ThrowingVisitReachesTheClientWithTheServiceMessageAndTheNextCommandWorks) {
  qxtest::LogCapture log;
  Service svc;
  Ui ui(svc.server.port(), svc.token);
  svc.processor->failVisits = true;

  auto const call =
      std::make_shared<Ipc::ServerRequest>(uiProcessor(), "getQuota", json::Object(), nullptr);
  std::promise<std::string> failed;
  ui.client.execute(call, [&](std::shared_ptr<Ipc::CmdI> const& cmd, std::string const& error) {
    EXPECT_EQ(call, cmd);
    failed.set_value(error);
  });
  std::string const expected = "Ipc \"Server Call\" failed in the service: disk full";
  EXPECT_EQ(expected, failed.get_future().get());
  EXPECT_EQ(expected, call->transferError());
  EXPECT_EQ(R"({"method":"getQuota","params":{}})", text(call->payload));

  svc.processor->failVisits = false;
  auto const running = std::make_shared<Ipc::IsRunning>(uiProcessor());
  EXPECT_EQ("", ui.client.run(running));
  EXPECT_TRUE(running->running);
  EXPECT_EQ("", running->transferError());

  std::vector<std::string> const lines = log.lines();
  EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "ERR:" + expected));
}

TEST(IpcServiceFailure, ThrowingVisitOfAnOkMsgCommandLeavesItsFieldsUnset) {
  qxtest::LogCapture log;
  Service svc;
  Ui ui(svc.server.port(), svc.token);
  svc.processor->failVisits = true;
  auto const resume = std::make_shared<Ipc::Resume>(uiProcessor());
  EXPECT_EQ("Ipc Resume failed in the service: disk full", ui.client.run(resume));
  EXPECT_FALSE(resume->ok);
  EXPECT_EQ("", resume->msg);

  svc.processor->failVisits = false;
  auto const again = std::make_shared<Ipc::Resume>(uiProcessor());
  EXPECT_EQ("", ui.client.run(again));
  EXPECT_TRUE(again->ok);
  EXPECT_EQ("resumed", again->msg);
  EXPECT_EQ(std::vector<std::string>{"ERR:Ipc Resume failed in the service: disk full"},
            log.lines());
}

// ---------------------------------------------------------------------------
// The bytes on the connection

// One command over a fresh connection through the relay; the bytes each way
// must be exactly: client: hello, its proof, then the request; service: the
// ok, its nonce and proof, the status of the handshake, then the status of
// the exchange and the response body. The nonces are random: they are taken
// from what went by, and the proofs must be the ones for them.
struct WireCase {
  char const* label;
  std::function<std::shared_ptr<Ipc::CmdI>()> make;
  std::string request;   // after the hello
  std::string response;  // the JSON response body's text
};

void expectWire(WireCase const& c) {
  Service svc;
  Relay relay(svc.server.port());
  std::string toService;
  std::string toClient;
  {
    Ui ui(relay.port(), svc.token);
    EXPECT_EQ("", ui.client.run(c.make())) << c.label;
    toService = relay.toService();
    toClient = relay.toClient();
  }
  qxtest::hs::Nonce const clientNonce = qxtest::nonceAt(toService, 8);
  qxtest::hs::Nonce const serviceNonce = qxtest::nonceAt(toClient, Ipc::wire::kFrameSize);
  EXPECT_EQ(hex(qxtest::handshakeFromClient(svc.token, clientNonce, serviceNonce) + c.request), hex(toService))
      << c.label;
  EXPECT_EQ(hex(qxtest::handshakeFromService(svc.token, clientNonce, serviceNonce) + okFrame() + body(c.response)),
            hex(toClient))
      << c.label;
}

TEST(IpcWireBytes, BareRequestsAreAnEightByteFrameWithoutBody) {
  std::vector<WireCase> const cases = {
      {"IsRunning", [] { return std::make_shared<Ipc::IsRunning>(uiProcessor()); },
       frame(Ipc::IsRunning(uiProcessor()).typeCode(), 0), R"({"resp":true})"},
      {"GetCfg", [] { return std::make_shared<Ipc::GetCfg>(uiProcessor()); },
       frame(Ipc::GetCfg(uiProcessor()).typeCode(), 0), text(qxtest::serviceSettings().serialize())},
      {"Resume", [] { return std::make_shared<Ipc::Resume>(uiProcessor()); },
       frame(Ipc::Resume(uiProcessor()).typeCode(), 0), R"({"ok":true,"msg":"resumed"})"},
      {"GetUploads", [] { return std::make_shared<Ipc::GetUploads>(uiProcessor()); },
       frame(Ipc::GetUploads(uiProcessor()).typeCode(), 0), qxtest::kUploadsText},
  };
  for (WireCase const& c : cases) {
    ASSERT_EQ(8u, c.request.size()) << c.label;
    expectWire(c);
  }
}

TEST(IpcWireBytes, PauseWithoutDelAllSendsAnEmptyObjectBody) {
  std::uint8_t const code = Ipc::Pause(uiProcessor()).typeCode();
  expectWire({"Pause", [] { return std::make_shared<Ipc::Pause>(uiProcessor(), false); },
              frame(code, Ipc::wire::kFlagJsonBody) + std::string("\x02\0\0\0{}", 6),
              R"({"ok":true,"msg":"paused"})"});
}

TEST(IpcWireBytes, PauseWithDelAllSendsTheFlag) {
  std::uint8_t const code = Ipc::Pause(uiProcessor()).typeCode();
  expectWire({"Pause", [] { return std::make_shared<Ipc::Pause>(uiProcessor(), true); },
              frame(code, Ipc::wire::kFlagJsonBody) + body(R"({"delAll":true})"),
              R"({"ok":true,"msg":"paused, waiting items discarded"})"});
}

TEST(IpcWireBytes, SaveCfgSendsTheRecordAndGetsOkBeforeMsg) {
  expectWire({"SaveCfg",
              [] { return std::make_shared<Ipc::SaveCfg>(uiProcessor(), clientSettings()); },
              frame(5, Ipc::wire::kFlagJsonBody) + body(text(clientSettings().serialize())),
              R"({"ok":true,"msg":"saved acct-ui"})"});
}

TEST(IpcWireBytes, ServerRequestSendsItsPayloadAndGetsTheAnswer) {
  expectWire({"ServerRequest",
              [] {
                Inet::InetCfg inet("v");
                inet.setServerAddress("srv.example.com");
                return std::make_shared<Ipc::ServerRequest>(
                    uiProcessor(), "getQuota", parse(R"({"account":"a1"})"), &inet);
              },
              frame(8, Ipc::wire::kFlagJsonBody) +
                  body(R"({"method":"getQuota","params":{"account":"a1"},)"
                       R"("inetCfg":{"InetServer":"srv.example.com"}})"),
              R"({"method":"getQuota","params":{"account":"a1"},"server":"srv.example.com"})"});
}

TEST(IpcWireBytes, IsRunningFalseAnswersAnEmptyObject) {
  Service svc;
  svc.processor->running = false;
  Relay relay(svc.server.port());
  std::string toService;
  std::string toClient;
  auto const cmd = std::make_shared<Ipc::IsRunning>(uiProcessor());
  {
    Ui ui(relay.port(), svc.token);
    EXPECT_EQ("", ui.client.run(cmd));
    toService = relay.toService();
    toClient = relay.toClient();
  }
  EXPECT_FALSE(cmd->running);
  qxtest::hs::Nonce const clientNonce = qxtest::nonceAt(toService, 8);
  qxtest::hs::Nonce const serviceNonce = qxtest::nonceAt(toClient, Ipc::wire::kFrameSize);
  EXPECT_EQ(hex(qxtest::handshakeFromService(svc.token, clientNonce, serviceNonce) + okFrame() +
                std::string("\x02\0\0\0{}", 6)),
            hex(toClient));
}

// ---------------------------------------------------------------------------
// Service and user interface in two processes

namespace {

// The peer service program, started with pipes on its standard input and
// output. The token file is created by the program.
class PeerProcess {
 public:
  // logFile, when given, receives its standard error (its log); maxFiles,
  // when not 0, is its limit of open descriptors.
  explicit PeerProcess(boost::filesystem::path const& tokenFile,
                       boost::filesystem::path const& logFile = boost::filesystem::path(),
                       unsigned maxFiles = 0) {
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe2 failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::string const log = logFile.string();
    if (!log.empty()) {
      posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    std::string const program = QX_IPC_PEER_SERVICE;
    std::string const file = tokenFile.string();
    std::string const max = std::to_string(maxFiles);
    char* const argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>(file.c_str()),
                          maxFiles != 0 ? const_cast<char*>(max.c_str()) : nullptr, nullptr};
    int const rc = ::posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    m_stdin = in[1];
    m_stdout = out[0];
    if (rc != 0) {
      m_pid = -1;
      throw std::runtime_error("cannot start " + program + ": " + std::strerror(rc));
    }
  }

  ~PeerProcess() {
    if (m_stdin >= 0) ::close(m_stdin);
    if (m_stdout >= 0) ::close(m_stdout);
    if (m_pid > 0) {
      ::kill(m_pid, SIGKILL);
      int status = 0;
      ::waitpid(m_pid, &status, 0);
    }
  }

  PeerProcess(PeerProcess const&) = delete;
  PeerProcess& operator=(PeerProcess const&) = delete;

  // The first line of its standard output: the port, once it listens. 0 when
  // the line does not come within 20 s or is not a port.
  std::uint16_t readPort() {
    std::string line;
    while (line.find('\n') == std::string::npos) {
      pollfd p{m_stdout, POLLIN, 0};
      int const ready = ::poll(&p, 1, 20000);
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) return 0;
      char buf[64];
      ssize_t const n = ::read(m_stdout, buf, sizeof buf);
      if (n <= 0) return 0;
      line.append(buf, static_cast<std::size_t>(n));
    }
    unsigned long const port = std::strtoul(line.c_str(), nullptr, 10);
    return port > 0 && port < 65536 ? static_cast<std::uint16_t>(port) : 0;
  }

  pid_t pid() const { return m_pid; }

  // Closes its standard input, which ends it; returns its wait status.
  int closeStdinAndWait() {
    ::close(m_stdin);
    m_stdin = -1;
    return waitForExit();
  }

  int terminateAndWait() {
    ::kill(m_pid, SIGTERM);
    return waitForExit();
  }

 private:
  int waitForExit() {
    int status = 0;
    while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    return status;
  }

  pid_t m_pid = -1;
  int m_stdin = -1;
  int m_stdout = -1;
};

std::string exitText(int status) {
  if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return "status " + std::to_string(status);
}

}  // namespace

TEST(IpcTwoProcesses, AllSevenCommandsReachAServiceInAnotherProcess) {
  qxtest::TempDir dir;
  boost::filesystem::path const tokenFile = dir / "ipc.token";
  PeerProcess peer(tokenFile);
  std::uint16_t const port = peer.readPort();
  ASSERT_NE(0, port);
  {
    Ui ui(port, Ipc::SecretToken::load(tokenFile));

    auto const isRunning = std::make_shared<Ipc::IsRunning>(uiProcessor());
    runOk(ui, isRunning);
    EXPECT_TRUE(isRunning->running);

    auto const getCfg = std::make_shared<Ipc::GetCfg>(uiProcessor());
    runOk(ui, getCfg);
    EXPECT_TRUE(*getCfg->pSetts() == qxtest::serviceSettings());

    auto const saveCfg = std::make_shared<Ipc::SaveCfg>(uiProcessor(), clientSettings());
    runOk(ui, saveCfg);
    EXPECT_TRUE(saveCfg->ok);
    EXPECT_EQ("saved acct-ui", saveCfg->msg);

    auto const pause = std::make_shared<Ipc::Pause>(uiProcessor(), true);
    runOk(ui, pause);
    EXPECT_TRUE(pause->ok);
    EXPECT_EQ("paused, waiting items discarded", pause->msg);

    auto const resume = std::make_shared<Ipc::Resume>(uiProcessor());
    runOk(ui, resume);
    EXPECT_TRUE(resume->ok);
    EXPECT_EQ("resumed", resume->msg);

    Inet::InetCfg inet("v");
    inet.setServerAddress("srv.example.com");
    auto const call = std::make_shared<Ipc::ServerRequest>(uiProcessor(), "getQuota",
                                                           parse(R"({"account":"a1"})"), &inet);
    runOk(ui, call);
    EXPECT_EQ(R"({"method":"getQuota","params":{"account":"a1"},"server":"srv.example.com"})",
              text(call->payload));

    auto const uploads = std::make_shared<Ipc::GetUploads>(uiProcessor());
    runOk(ui, uploads);
    EXPECT_EQ(qxtest::kUploadsText, text(uploads->payload));

    EXPECT_EQ(1u, ui.client.connectionsMade());
  }
  EXPECT_EQ("exit 0", exitText(peer.closeStdinAndWait()));
}

TEST(IpcTwoProcesses, ClientWithAnotherTokenIsRefused) {
  qxtest::TempDir dir;
  PeerProcess peer(dir / "ipc.token");
  std::uint16_t const port = peer.readPort();
  ASSERT_NE(0, port);
  {
    Ui ui(port, Ipc::SecretToken::generate());
    auto const cmd = std::make_shared<Ipc::IsRunning>(uiProcessor());
    EXPECT_EQ("Ipc the service on port " + std::to_string(port) + " could not prove that it holds the token",
              ui.client.run(cmd));
    EXPECT_FALSE(cmd->running);
  }
  EXPECT_EQ("exit 0", exitText(peer.closeStdinAndWait()));
}

// The CPU time (user and system) that process pid has used so far, from
// /proc/PID/stat.
std::chrono::milliseconds cpuTimeOf(pid_t pid) {
  std::string const stat = qxtest::readFile("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  // After the name: state is field 3; utime and stime are fields 14 and 15.
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  return std::chrono::milliseconds((utime + stime) * 1000 / static_cast<unsigned long long>(::sysconf(_SC_CLK_TCK)));
}

std::size_t linesOf(std::string const& text, std::string const& part) {
  std::size_t n = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(part) != std::string::npos) ++n;
  }
  return n;
}

// A service out of descriptors, flooded with connections that it cannot
// accept, waits between its tries and reports the failures once a second:
// it neither spins nor fills its log, and it serves again afterwards.
TEST(IpcTwoProcesses, ServiceOutOfDescriptorsUnderAFloodNeitherSpinsNorFloodsItsLog) {
#if defined(__SANITIZE_ADDRESS__)
  // The address and undefined-behaviour checkers test memory through a pipe
  // of their own: in a process without a descriptor left they report bad
  // objects that are not.
  GTEST_SKIP() << "the sanitizers' runtime needs descriptors of its own";
#endif
  qxtest::TempDir dir;
  boost::filesystem::path const tokenFile = dir / "ipc.token";
  boost::filesystem::path const logFile = dir / "service.log";
  PeerProcess peer(tokenFile, logFile, 64);
  std::uint16_t const port = peer.readPort();
  ASSERT_NE(0, port);

  // The flood keeps every connection open, far more than the service's 64
  // descriptors (and than its backlog), one each millisecond for 10 s.
  constexpr std::size_t kFloodConnections = 6000;
  rlimit limit{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
  if (limit.rlim_cur < kFloodConnections + 100) {
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, kFloodConnections + 100);
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
  }
  std::vector<int> flood;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto const cpuBefore = cpuTimeOf(peer.pid());
  auto const start = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
    if (flood.size() < kFloodConnections && flood.size() + 50 < limit.rlim_cur) {
      int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      ASSERT_GE(fd, 0) << std::strerror(errno);
      ::connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address);
      flood.push_back(fd);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  auto const elapsed = std::chrono::steady_clock::now() - start;
  auto const cpu = cpuTimeOf(peer.pid()) - cpuBefore;
  std::string const log = qxtest::readFile(logFile);
  for (int fd : flood) ::close(fd);

  // It did run out, and said so.
  std::size_t const failures = linesOf(log, "ERR:Ipc accepting a connection failed: Too many open files");
  EXPECT_GE(failures, 1u) << log;
  EXPECT_LE(failures, 11u) << log;
  std::size_t const lines = static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n'));
  EXPECT_LT(lines, 100u) << log;
  ::testing::Test::RecordProperty("serviceCpuMs", static_cast<int>(cpu.count()));
  ::testing::Test::RecordProperty("serviceLogLines", static_cast<int>(lines));
  ::testing::Test::RecordProperty("acceptFailureLines", static_cast<int>(failures));
  EXPECT_LT(cpu.count() * 10, std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count())
      << "CPU " << cpu.count() << " ms in "
      << std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count() << " ms";

  // Once the flood is gone, it serves again.
  Ui ui(port, Ipc::SecretToken::load(tokenFile));
  std::string error = "not tried";
  for (auto const until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
       !error.empty() && std::chrono::steady_clock::now() < until;) {
    auto const cmd = std::make_shared<Ipc::IsRunning>(uiProcessor());
    error = ui.client.run(cmd);
    if (error.empty()) EXPECT_TRUE(cmd->running);
    else std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  EXPECT_EQ("", error);
  EXPECT_EQ("exit 0", exitText(peer.closeStdinAndWait()));
}

TEST(IpcTwoProcesses, ServiceStoppedBySigtermEndsCleanlyAndTheClientCannotReachIt) {
  qxtest::TempDir dir;
  boost::filesystem::path const tokenFile = dir / "ipc.token";
  PeerProcess peer(tokenFile);
  std::uint16_t const port = peer.readPort();
  ASSERT_NE(0, port);
  Ui ui(port, Ipc::SecretToken::load(tokenFile));
  runOk(ui, std::make_shared<Ipc::IsRunning>(uiProcessor()));

  EXPECT_EQ("exit 0", exitText(peer.terminateAndWait()));
  auto const cmd = std::make_shared<Ipc::IsRunning>(uiProcessor());
  EXPECT_EQ("Ipc cannot connect to the service at 127.0.0.1:" + std::to_string(port) +
                ": Connection refused",
            ui.client.run(cmd));
  EXPECT_FALSE(cmd->running);
}
