// Tests of the IPC transport over real loopback connections: the service
// (CmdServer) and the user interface (CmdClient) both run in this process, on
// ports that the system chooses. Raw sockets stand in for either side where a
// test needs to see or send exact bytes.
//
// The commands it runs are in TransportTestCmds.h.
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/JsonCmdBase.h"
#include "shared/SecretToken.h"
#include "shared/transport/Handshake.h"
#include "shared/transport/Wire.h"

#include "tests/TestUtil.h"
#include "tests/TransportTestCmds.h"
#include "tests/RawHandshake.h"
#include "tests/RawSocket.h"
#include "tests/WireBytes.h"

#include <boost/asio/post.hpp>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using namespace transporttest;
using Ipc::CmdI;
namespace wire = Ipc::wire;

// Waits until pred() holds, looking every millisecond; false when it still
// does not after limit. For states that announce no change (connection
// counts, log lines written after the last byte that a test can see).
template <class Pred>
bool waitUntil(Pred pred, std::chrono::milliseconds limit = kPatience) {
  auto const end = std::chrono::steady_clock::now() + limit;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// ---------------------------------------------------------------------------
// Bytes of the wire

using qxtest::helloBytes;
using qxtest::proveToService;
namespace hs = Ipc::transport::handshake;
using qxtest::okFrame;
using qxtest::refusalBytes;
using qxtest::requestFrame;
std::string body(std::string const& text) { return qxtest::jsonBody(text); }

// Log lines with the port of every loopback peer replaced by "PORT", for
// lines about connections whose port the test does not know.
std::vector<std::string> maskedLines(qxtest::LogCapture& log) {
  static std::regex const peer(R"(127\.0\.0\.1:\d+)");
  std::vector<std::string> lines = log.lines();
  for (std::string& line : lines) line = std::regex_replace(line, peer, "127.0.0.1:PORT");
  return lines;
}

std::string masked(std::string const& text) {
  static std::regex const peer(R"(127\.0\.0\.1:\d+)");
  return std::regex_replace(text, peer, "127.0.0.1:PORT");
}

// ---------------------------------------------------------------------------
// Raw sockets

using qxtest::RawSocket;

// A socket bound to a loopback port that the system chooses; it listens only
// when asked, so that without listening it holds a port where connections are
// refused.
class RawPort {
 public:
  explicit RawPort(bool listening, bool ip6 = false) {
    m_fd = ::socket(ip6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int rc;
    if (ip6) {
      sockaddr_in6 addr{};
      addr.sin6_family = AF_INET6;
      addr.sin6_addr = in6addr_loopback;
      rc = ::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    } else {
      sockaddr_in addr{};
      addr.sin_family = AF_INET;
      addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      rc = ::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    }
    m_bound = rc == 0;
    if (m_bound && listening) m_bound = ::listen(m_fd, 16) == 0;
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
    m_port = ip6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port)
                 : ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
  }
  ~RawPort() { ::close(m_fd); }
  RawPort(RawPort const&) = delete;
  RawPort& operator=(RawPort const&) = delete;

  bool bound() const { return m_bound; }
  std::uint16_t port() const { return m_port; }

  // The next connection; an invalid socket after 15 s without one.
  RawSocket accept() {
    pollfd p{m_fd, POLLIN, 0};
    if (::poll(&p, 1, 15000) != 1) {
      ADD_FAILURE() << "no connection came";
      return RawSocket();
    }
    return RawSocket(::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC));
  }

 private:
  int m_fd = -1;
  bool m_bound = false;
  std::uint16_t m_port = 0;
};

bool ip6LoopbackWorks() {
  RawPort probe(true, true);
  return probe.bound();
}

// The completion of one command, once it comes.
struct Outcome {
  std::shared_ptr<std::promise<std::string>> promise = std::make_shared<std::promise<std::string>>();
  std::future<std::string> future = promise->get_future();

  Ipc::CmdClient::Completion completion(Recorder* recorder = nullptr) {
    auto p = promise;
    return [p, recorder](std::shared_ptr<CmdI> const&, std::string const& error) {
      if (recorder) recorder->add("finish");
      try {
        p->set_value(error);
      } catch (std::future_error const&) {
        ADD_FAILURE() << "a second completion: " << error;
      }
    };
  }
  // The error; "<no completion>" (and a failure) when none came in time.
  std::string get() {
    if (future.wait_for(kPatience) != std::future_status::ready) {
      ADD_FAILURE() << "the command did not complete";
      return "<no completion>";
    }
    return future.get();
  }
  bool ready() { return future.wait_for(0s) == std::future_status::ready; }
};

// Runs cmd and returns its completion's error.
std::string runCmd(Ipc::CmdClient& client, std::shared_ptr<CmdI> cmd) {
  Outcome outcome;
  client.execute(std::move(cmd), outcome.completion());
  return outcome.get();
}

// ---------------------------------------------------------------------------
// The fixture: a service and its processor; clients are made by the tests.

class TransportTest : public ::testing::Test {
 protected:
  ~TransportTest() override {
    svc->gate.release(1000);
    if (server) server->stop();
  }

  static Ipc::CmdServerOptions serverOptions() {
    Ipc::CmdServerOptions options;
    options.forceIp4 = true;
    return options;
  }
  void startServer(Ipc::CmdServerOptions options = serverOptions()) {
    server = std::make_unique<Ipc::CmdServer>(svcIo, options, token, buildCmd, svc);
    server->start();
  }
  Ipc::CmdClientOptions clientOptions() const {
    Ipc::CmdClientOptions options;
    options.port = server->port();
    return options;
  }
  std::unique_ptr<Ipc::CmdClient> makeClient() {
    return std::make_unique<Ipc::CmdClient>(uiIo, clientOptions(), token);
  }
  std::unique_ptr<Ipc::CmdClient> makeClient(Ipc::CmdClientOptions const& options) {
    return std::make_unique<Ipc::CmdClient>(uiIo, options, token);
  }
  // Sends a command that the service holds at its gate, then answers with
  // request; outcome learns how it ended.
  std::shared_ptr<SlowCmd> sendHeld(Ipc::CmdClient& client, std::string const& request,
                                    Outcome& outcome) {
    auto slow = std::make_shared<SlowCmd>(ui, CmdI::TIMEOUT_LONG);
    slow->request = textObject(request);
    client.execute(slow, outcome.completion());
    return slow;
  }

  // A raw connection that has proven the token.
  RawSocket helloConnection() {
    RawSocket raw = RawSocket::connectTo(server->port());
    EXPECT_EQ(okFrame(), proveToService(raw, token));
    return raw;
  }

  // An echo from a new client succeeds.
  void expectServiceWorks() {
    auto client = makeClient();
    auto cmd = echo(ui, "still there");
    EXPECT_EQ("", runCmd(*client, cmd));
    EXPECT_EQ(textObject("still there"), cmd->response);
  }

  static std::string peer(RawSocket const& raw) { return "127.0.0.1:" + std::to_string(raw.localPort()); }

  qxtest::LogCapture log;  // first: outlives the service
  Ipc::IoThreads svcIo;
  Ipc::IoThreads uiIo;
  Ipc::SecretToken const token = Ipc::SecretToken::generate();
  std::shared_ptr<TestProcessor> const svc = std::make_shared<TestProcessor>();
  std::shared_ptr<TestProcessor> const ui = std::make_shared<TestProcessor>();
  std::unique_ptr<Ipc::CmdServer> server;
};

using Calls = std::vector<std::string>;

// ---------------------------------------------------------------------------
// Round trips and the order of the frame's calls

TEST_F(TransportTest, JsonCommandRoundTripCallsTheFrameInOrder) {
  startServer();
  auto client = makeClient();
  auto cmd = std::make_shared<EchoCmd>(ui);
  cmd->request = textObject("hello \"world\"");
  cmd->request.setAt("n", json::Value(json_int_t(42)));

  Outcome outcome;
  client->execute(cmd, outcome.completion(&ui->calls));
  EXPECT_EQ("", outcome.get());
  EXPECT_EQ(cmd->request, cmd->response);
  EXPECT_EQ("", cmd->transferError());
  EXPECT_EQ(nullptr, cmd->channel());
  EXPECT_EQ((Calls{"sendReq", "serializeReq", "sendReqDone", "readResp", "deserializeResp",
                   "readRespDone", "finish"}),
            ui->calls.calls());

  ASSERT_TRUE(svc->calls.waitFor(8));
  EXPECT_EQ((Calls{"readReq", "deserializeReq", "readReqDone", "accept", "sendResp", "serializeResp",
                   "sendRespDone", "destroyed"}),
            svc->calls.calls());
  EXPECT_EQ(1, svc->served.load());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, BareCommandRoundTripCallsTheFrameInOrder) {
  startServer();
  auto client = makeClient();
  auto cmd = std::make_shared<BareCmd>(ui);

  Outcome outcome;
  client->execute(cmd, outcome.completion(&ui->calls));
  EXPECT_EQ("", outcome.get());
  EXPECT_EQ("pong", cmd->response[Ipc::JsonCmdBase::FIELD_RESP].asStringSafe());
  EXPECT_EQ((Calls{"sendReq", "readResp", "deserializeResp", "readRespDone", "finish"}), ui->calls.calls());

  ASSERT_TRUE(svc->calls.waitFor(6));
  EXPECT_EQ((Calls{"readReq", "accept", "sendResp", "serializeResp", "sendRespDone", "destroyed"}),
            svc->calls.calls());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, CommandWithoutAnyBodyRoundTrip) {
  startServer();
  auto client = makeClient();
  auto cmd = std::make_shared<PingCmd>(ui);

  Outcome outcome;
  client->execute(cmd, outcome.completion(&ui->calls));
  EXPECT_EQ("", outcome.get());
  EXPECT_EQ((Calls{"sendReq", "readResp", "finish"}), ui->calls.calls());

  ASSERT_TRUE(svc->calls.waitFor(4));
  EXPECT_EQ((Calls{"readReq", "accept", "sendResp", "destroyed"}), svc->calls.calls());

  // The connection is still in step: the next command uses it.
  auto second = echo(ui, "after ping");
  EXPECT_EQ("", runCmd(*client, second));
  EXPECT_EQ(textObject("after ping"), second->response);
  EXPECT_EQ(1u, client->connectionsMade());
}

TEST_F(TransportTest, StreamedResponseReachesTheCommandThroughTheChannel) {
  startServer();
  auto client = makeClient();
  auto cmd = std::make_shared<StreamCmd>(ui);
  cmd->request.setAt("count", json::Value(json_int_t(3)));

  Outcome outcome;
  client->execute(cmd, outcome.completion(&ui->calls));
  EXPECT_EQ("", outcome.get());
  EXPECT_EQ((std::vector<std::string>{"line 1", "line 2", "line 3"}), cmd->lines);
  EXPECT_EQ((Calls{"sendReq", "serializeReq", "sendReqDone", "readResp", "processCmd:line 1",
                   "processCmd:line 2", "processCmd:line 3", "finish"}),
            ui->calls.calls());

  ASSERT_TRUE(svc->calls.waitFor(6));
  EXPECT_EQ((Calls{"readReq", "deserializeReq", "readReqDone", "accept", "sendResp", "destroyed"}),
            svc->calls.calls());

  // The stream ended where the command said: the connection goes on.
  auto second = echo(ui, "after the stream");
  EXPECT_EQ("", client->run(second));
  EXPECT_EQ(textObject("after the stream"), second->response);
  EXPECT_EQ(1u, client->connectionsMade());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, RunReturnsTheErrorOfTheCompletion) {
  startServer();
  auto client = makeClient();
  EXPECT_EQ("", client->run(echo(ui, "run")));
  EXPECT_EQ("Ipc unknown command type code 200 from 127.0.0.1:PORT",
            masked(client->run(std::make_shared<EchoCmd>(ui, kUnknown))));
}

// ---------------------------------------------------------------------------
// Bytes on the wire

TEST_F(TransportTest, WireBytesOfABareRequest) {
  RawPort service(true);
  ASSERT_TRUE(service.bound());
  Ipc::CmdClientOptions options;
  options.port = service.port();
  auto client = makeClient(options);
  auto cmd = std::make_shared<BareCmd>(ui);
  Outcome outcome;
  client->execute(cmd, outcome.completion());

  RawSocket conn = service.accept();
  ASSERT_TRUE(conn.valid());
  // The hello: its fixed start, then the client's nonce.
  std::string const hello = conn.read(40);
  ASSERT_EQ(40u, hello.size());
  EXPECT_EQ(std::string("QXLC\x02\x00\x00\x00", 8), hello.substr(0, 8));
  hs::Nonce const clientNonce = qxtest::nonceAt(hello, 8);
  // Ours: ok, our nonce and our proof; the client answers with its proof
  // for both nonces.
  hs::Nonce const serviceNonce = hs::freshNonce();
  conn.send(std::string("QX\x02\x00\x00\x00\x00\x00", 8) + qxtest::wireBytes(serviceNonce.data(), 32) +
            qxtest::proofBytes(hs::prove(token, hs::Role::Service, 2, clientNonce, serviceNonce)));
  EXPECT_EQ(qxtest::proofBytes(hs::prove(token, hs::Role::Client, 2, clientNonce, serviceNonce)), conn.read(32));
  conn.send(std::string("QX\x02\x00\x00\x00\x00\x00", 8));
  EXPECT_EQ(std::string("QX\x02\x02\x00\x00\x00\x00", 8), conn.read(8));
  conn.send(std::string("QX\x02\x00\x00\x00\x00\x00", 8) + std::string("\x0f\x00\x00\x00", 4) +
            "{\"resp\":\"pong\"}");
  EXPECT_EQ("", outcome.get());
  EXPECT_EQ("pong", cmd->response[Ipc::JsonCmdBase::FIELD_RESP].asStringSafe());

  // Nothing else was sent.
  client.reset();
  RawSocket::Rest const rest = conn.readToEnd();
  EXPECT_EQ("", rest.data);
  EXPECT_EQ("end of stream", rest.end);
}

TEST_F(TransportTest, WireBytesOfAJsonRequest) {
  RawPort service(true);
  ASSERT_TRUE(service.bound());
  Ipc::CmdClientOptions options;
  options.port = service.port();
  auto client = makeClient(options);
  auto cmd = echo(ui, "a \"quoted\" word");
  Outcome outcome;
  client->execute(cmd, outcome.completion());

  RawSocket conn = service.accept();
  ASSERT_TRUE(conn.valid());
  EXPECT_EQ("", qxtest::answerHello(conn, token));
  std::string const text = R"({"text":"a \"quoted\" word"})";
  ASSERT_EQ(28u, text.size());
  std::string const expected =
      std::string("QX\x02\x01\x01\x00\x00\x00", 8) + std::string("\x1c\x00\x00\x00", 4) + text;
  EXPECT_EQ(expected, conn.read(expected.size()));
  conn.send(okFrame() + body(R"({"text":"back"})"));
  EXPECT_EQ("", outcome.get());
  EXPECT_EQ(textObject("back"), cmd->response);

  client.reset();
  RawSocket::Rest const rest = conn.readToEnd();
  EXPECT_EQ("", rest.data);
  EXPECT_EQ("end of stream", rest.end);
}

TEST_F(TransportTest, WireBytesOfTheServiceAnswers) {
  startServer();
  RawSocket raw = RawSocket::connectTo(server->port());
  hs::Nonce const clientNonce = hs::freshNonce();
  raw.send(std::string("QXLC\x02\x00\x00\x00", 8) + qxtest::wireBytes(clientNonce.data(), 32));
  // ok, the service's nonce, and its proof for both nonces.
  std::string const challenge = raw.read(8 + 64);
  ASSERT_EQ(72u, challenge.size());
  EXPECT_EQ(std::string("QX\x02\x00\x00\x00\x00\x00", 8), challenge.substr(0, 8));
  hs::Nonce const serviceNonce = qxtest::nonceAt(challenge, 8);
  EXPECT_EQ(qxtest::proofBytes(hs::prove(token, hs::Role::Service, 2, clientNonce, serviceNonce)),
            challenge.substr(40));
  raw.send(qxtest::proofBytes(hs::prove(token, hs::Role::Client, 2, clientNonce, serviceNonce)));
  EXPECT_EQ(std::string("QX\x02\x00\x00\x00\x00\x00", 8), raw.read(8));

  raw.send(requestFrame(kEcho, wire::kFlagJsonBody) + body(R"({"text":"hi"})"));
  std::string const answer = std::string("QX\x02\x00\x00\x00\x00\x00", 8) +
                             std::string("\x0d\x00\x00\x00", 4) + R"({"text":"hi"})";
  EXPECT_EQ(answer, raw.read(answer.size()));

  raw.send(requestFrame(kPing, 0));
  EXPECT_EQ(okFrame(), raw.read(8));

  raw.send(requestFrame(kBare, 0));
  std::string const pong = okFrame() + body(R"({"resp":"pong"})");
  EXPECT_EQ(pong, raw.read(pong.size()));

  // Nothing more comes until the client leaves; then the service closes too.
  raw.shutdownSend();
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ("", rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_TRUE(waitUntil([&] { return server->connectionCount() == 0; }));
  EXPECT_TRUE(log.lines().empty());
}

// ---------------------------------------------------------------------------
// The connection across commands

TEST_F(TransportTest, OneConnectionServesManyCommands) {
  startServer();
  auto client = makeClient();
  for (int i = 0; i < 100; ++i) {
    auto cmd = echo(ui, "command " + std::to_string(i));
    ASSERT_EQ("", runCmd(*client, cmd));
    ASSERT_EQ(textObject("command " + std::to_string(i)), cmd->response);
  }
  EXPECT_EQ(1u, client->connectionsMade());
  EXPECT_EQ(1u, server->connectionCount());
  EXPECT_EQ(100, svc->served.load());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, ClientWithoutThreadsRunsOnTheCallersThreadOverOneConnection) {
  startServer();
  Ipc::CmdClient client(clientOptions(), token);
  std::thread::id const caller = std::this_thread::get_id();
  for (int i = 0; i < 20; ++i) {
    auto cmd = echo(ui, "command " + std::to_string(i));
    std::thread::id completedOn;
    client.execute(cmd, [&completedOn](std::shared_ptr<CmdI> const&, std::string const&) {
      completedOn = std::this_thread::get_id();
    });
    // Queued only: the next run() carries it out, before its own command.
    auto second = echo(ui, "second " + std::to_string(i));
    ASSERT_EQ("", client.run(second));
    EXPECT_EQ(caller, completedOn);
    EXPECT_EQ(textObject("command " + std::to_string(i)), cmd->response);
    EXPECT_EQ(textObject("second " + std::to_string(i)), second->response);
  }
  EXPECT_EQ(1u, client.connectionsMade());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, ClientWithoutThreadsReportsRefusalsAndFailsWhatItLeavesQueued) {
  startServer();
  std::string queuedError;
  {
    Ipc::CmdClient intruder(clientOptions(), Ipc::SecretToken::generate());
    auto cmd = echo(ui, "let me in");
    std::string const why = "Ipc the service on port " + std::to_string(server->port()) +
                            " could not prove that it holds the token";
    EXPECT_EQ(why, intruder.run(cmd));
    EXPECT_EQ(why, cmd->transferError());
    intruder.execute(echo(ui, "never sent"), [&queuedError](std::shared_ptr<CmdI> const&, std::string const& e) {
      queuedError = e;
    });
  }
  EXPECT_EQ("Ipc the client is closing", queuedError);
  expectServiceWorks();
}

TEST_F(TransportTest, QueuedCommandsCompleteInOrder) {
  startServer();
  auto client = makeClient();
  std::vector<std::shared_ptr<EchoCmd>> cmds;
  std::vector<Outcome> outcomes(50);
  Recorder order;
  for (int i = 0; i < 50; ++i) {
    cmds.push_back(echo(ui, std::to_string(i)));
    auto p = outcomes[i].promise;
    client->execute(cmds.back(), [p, &order, i](std::shared_ptr<CmdI> const&, std::string const& error) {
      order.add(std::to_string(i));
      p->set_value(error);
    });
  }
  Calls expected;
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ("", outcomes[i].get());
    EXPECT_EQ(textObject(std::to_string(i)), cmds[i]->response);
    expected.push_back(std::to_string(i));
  }
  EXPECT_EQ(expected, order.calls());
  EXPECT_EQ(1u, client->connectionsMade());
}

TEST_F(TransportTest, CommandAfterIdleCloseReconnects) {
  Ipc::CmdServerOptions options = serverOptions();
  options.idleTimeout = 500ms;
  startServer(options);
  auto client = makeClient();
  EXPECT_EQ("", runCmd(*client, echo(ui, "first")));
  EXPECT_EQ(1u, client->connectionsMade());

  ASSERT_TRUE(waitUntil([&] { return server->connectionCount() == 0; }));
  auto cmd = echo(ui, "second");
  EXPECT_EQ("", runCmd(*client, cmd));
  EXPECT_EQ(textObject("second"), cmd->response);
  EXPECT_EQ(2u, client->connectionsMade());
  // Closing an idle connection is a normal end.
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, IdleConnectionAfterHelloIsClosedQuietly) {
  Ipc::CmdServerOptions options = serverOptions();
  options.idleTimeout = 500ms;
  startServer(options);
  RawSocket raw = helloConnection();
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ("", rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_TRUE(waitUntil([&] { return server->connectionCount() == 0; }));
  EXPECT_TRUE(log.lines().empty());
  expectServiceWorks();
}

// ---------------------------------------------------------------------------
// Refusals

TEST_F(TransportTest, WrongProofIsRefused) {
  startServer();
  RawSocket raw = RawSocket::connectTo(server->port());
  hs::Nonce const clientNonce = hs::freshNonce();
  qxtest::Challenge const c = qxtest::sendHello(raw, clientNonce);
  ASSERT_EQ(okFrame(), c.status);
  Ipc::SecretToken const other = Ipc::SecretToken::generate();
  raw.send(qxtest::proofBytes(hs::prove(other, hs::Role::Client, wire::kVersion, clientNonce, c.serviceNonce)));
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(refusalBytes("Ipc connection refused: wrong token"), rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_EQ(0, svc->served.load());
  EXPECT_EQ((Calls{"ERR:Ipc connection from " + peer(raw) + " refused: wrong token"}), log.lines());
  raw.close();
  expectServiceWorks();
}

// A proof recorded from a good connection, replayed with the same hello on
// a new one, was made for the old service nonce and is worthless.
TEST_F(TransportTest, ReplayedClientProofIsRefused) {
  startServer();
  hs::Nonce const clientNonce = hs::freshNonce();
  std::string recordedProof;
  {
    RawSocket good = RawSocket::connectTo(server->port());
    qxtest::Challenge const c = qxtest::sendHello(good, clientNonce);
    ASSERT_EQ(okFrame(), c.status);
    recordedProof = qxtest::proofBytes(hs::prove(token, hs::Role::Client, wire::kVersion, clientNonce, c.serviceNonce));
    good.send(recordedProof);
    ASSERT_EQ(okFrame(), good.read(wire::kFrameSize));
  }
  RawSocket replay = RawSocket::connectTo(server->port());
  qxtest::Challenge const c = qxtest::sendHello(replay, clientNonce);
  ASSERT_EQ(okFrame(), c.status);
  replay.send(recordedProof);
  RawSocket::Rest const rest = replay.readToEnd();
  EXPECT_EQ(refusalBytes("Ipc connection refused: wrong token"), rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_EQ((Calls{"ERR:Ipc connection from " + peer(replay) + " refused: wrong token"}), log.lines());
  EXPECT_EQ(0, svc->served.load());
}

// The client checks the service's proof before it proves anything itself:
// a service of another token is refused, on a new connection each time.
TEST_F(TransportTest, ClientRefusesAServiceThatCannotProveTheToken) {
  startServer();
  Ipc::CmdClientOptions options = clientOptions();
  options.tokenFile = "/etc/QXLite/other.token";
  auto intruder = std::make_unique<Ipc::CmdClient>(uiIo, options, Ipc::SecretToken::generate());
  std::string const why = "Ipc the service on port " + std::to_string(server->port()) +
                          " could not prove that it holds the token of \"/etc/QXLite/other.token\"";
  auto cmd = echo(ui, "let me in");
  EXPECT_EQ(why, runCmd(*intruder, cmd));
  EXPECT_EQ(why, cmd->transferError());
  EXPECT_EQ(why, runCmd(*intruder, echo(ui, "again")));
  EXPECT_EQ(2u, intruder->connectionsMade());
  EXPECT_EQ(0, svc->served.load());
  // The service sees clients that left without proving anything.
  ASSERT_TRUE(waitUntil([&] { return log.lines().size() == 2; }));
  EXPECT_EQ((Calls{"ERR:Ipc connection from 127.0.0.1:PORT refused: no token (the client closed the connection)",
                   "ERR:Ipc connection from 127.0.0.1:PORT refused: no token (the client closed the connection)"}),
            maskedLines(log));
  expectServiceWorks();
}

// Another user's process that holds the service's port while the service is
// down learns the client's nonce and nothing else: no token, no proof.
TEST_F(TransportTest, ListenerInPlaceOfTheServiceLearnsNothingOfTheToken) {
  RawPort impostor(true);
  ASSERT_TRUE(impostor.bound());
  Ipc::CmdClientOptions options;
  options.port = impostor.port();
  options.tokenFile = "/etc/QXLite/ipc.token";
  auto client = makeClient(options);
  auto cmd = echo(ui, "status?");
  Outcome outcome;
  client->execute(cmd, outcome.completion());

  RawSocket conn = impostor.accept();
  ASSERT_TRUE(conn.valid());
  std::string const hello = conn.read(wire::kHelloSize);
  ASSERT_EQ(wire::kHelloSize, hello.size());
  EXPECT_EQ(std::string("QXLC\x02\x00\x00\x00", 8), hello.substr(0, 8));
  // The best the impostor can do: an ok and a nonce of its own, with a
  // proof it cannot make.
  hs::Nonce const serviceNonce = hs::freshNonce();
  conn.send(okFrame() + qxtest::wireBytes(serviceNonce.data(), 32) + std::string(32, '\0'));
  RawSocket::Rest const rest = conn.readToEnd();
  EXPECT_EQ("", qxtest::printable(rest.data));
  EXPECT_EQ("end of stream", rest.end);
  std::string const all = hello + rest.data;
  std::string const tokenBytes = qxtest::wireBytes(token.data(), Ipc::SecretToken::SIZE);
  EXPECT_EQ(std::string::npos, all.find(tokenBytes));
  std::string const why = "Ipc the service on port " + std::to_string(impostor.port()) +
                          " could not prove that it holds the token of \"/etc/QXLite/ipc.token\"";
  EXPECT_EQ(why, outcome.get());
  EXPECT_EQ(why, cmd->transferError());
}

// Connections that say nothing are logged ten a second at most; the others
// are counted into the next line, so that a flood cannot fill the log.
TEST_F(TransportTest, ConnectionsThatSayNothingAreLoggedTenASecondAndCounted) {
  startServer();
  std::string const silent = "ERR:Ipc connection from 127.0.0.1:PORT refused: no token (the client closed the connection)";
  // The silent refusals' lines, and the refusals they count without a line.
  struct Seen {
    std::size_t lines = 0;
    std::size_t counted = 0;
  };
  auto seen = [&] {
    static std::regex const more(R"( \(and (\d+) more times since the last report\)$)");
    Seen s;
    for (std::string const& line : maskedLines(log)) {
      if (line.compare(0, silent.size(), silent) != 0) continue;
      ++s.lines;
      std::smatch m;
      if (std::regex_search(line, m, more)) s.counted += std::stoul(m[1]);
    }
    return s;
  };
  constexpr std::size_t kFlood = 100;
  auto const start = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < kFlood; ++i) RawSocket::connectTo(server->port()).close();
  ASSERT_TRUE(waitUntil([&] { return seen().lines >= 10; }));
  // A second later every refusal of the flood has been made, and the next
  // line carries the count of those that had none.
  std::this_thread::sleep_for(1100ms);
  RawSocket::connectTo(server->port()).close();
  ASSERT_TRUE(waitUntil([&] { return seen().lines + seen().counted == kFlood + 1; }))
      << ::testing::PrintToString(maskedLines(log));
  double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  // Ten lines in each second that the run could span, however slow the
  // machine; on a quick one, 11 lines for 101 refusals.
  EXPECT_LE(seen().lines, 10 * (static_cast<std::size_t>(seconds) + 2)) << seconds << " s";
  EXPECT_LT(seen().lines, kFlood / 2);
  EXPECT_NE(std::string::npos, maskedLines(log).back().find(" more times since the last report)"))
      << maskedLines(log).back();
  expectServiceWorks();
}

TEST_F(TransportTest, NoTokenUntilTheHelloTimeoutIsRefused) {
  Ipc::CmdServerOptions options = serverOptions();
  options.helloTimeout = 500ms;
  startServer(options);
  RawSocket raw = RawSocket::connectTo(server->port());
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(refusalBytes("Ipc connection refused: no token (no byte moved for 500 ms)"), rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_EQ((Calls{"ERR:Ipc connection from " + peer(raw) + " refused: no token (no byte moved for 500 ms)"}),
            log.lines());
  raw.close();
  expectServiceWorks();
  EXPECT_EQ(1u, log.lines().size());
}

TEST_F(TransportTest, HelloOfAnotherProtocolVersionIsRefused) {
  startServer();
  RawSocket raw = RawSocket::connectTo(server->port());
  std::string hello = helloBytes(hs::freshNonce());
  hello[4] = 1;
  raw.send(hello);
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(refusalBytes("Ipc connection refused: unsupported protocol version 1 (this side speaks 2)"),
            rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_EQ((Calls{"ERR:Ipc connection from " + peer(raw) +
                   " refused: unsupported protocol version 1 (this side speaks 2)"}),
            log.lines());
  raw.close();
  expectServiceWorks();
}

TEST_F(TransportTest, HelloOfSomethingElseIsRefused) {
  startServer();
  RawSocket raw = RawSocket::connectTo(server->port());
  std::string notHello = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  notHello.resize(wire::kHelloSize, '.');
  raw.send(notHello);
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(refusalBytes("Ipc connection refused: not an IPC client"), rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_EQ((Calls{"ERR:Ipc connection from " + peer(raw) + " refused: not an IPC client"}), log.lines());
  raw.close();
  expectServiceWorks();
}

TEST_F(TransportTest, RequestOfAnotherProtocolVersionIsRefused) {
  startServer();
  RawSocket raw = helloConnection();
  std::string frame = requestFrame(kEcho, wire::kFlagJsonBody);
  frame[2] = 7;
  raw.send(frame + body("{}"));
  std::string const why = "Ipc unsupported protocol version 7 (this side speaks 2) from " + peer(raw);
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(refusalBytes(why), rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_EQ((Calls{"ERR:" + why}), log.lines());
  raw.close();
  expectServiceWorks();
}

TEST_F(TransportTest, UnknownTypeCodeIsRefused) {
  startServer();
  auto client = makeClient();
  auto cmd = std::make_shared<EchoCmd>(ui, kUnknown);
  std::string const error = runCmd(*client, cmd);
  EXPECT_EQ("Ipc unknown command type code 200 from 127.0.0.1:PORT", masked(error));
  EXPECT_EQ(error, cmd->transferError());
  EXPECT_EQ((Calls{"ERR:" + error}), log.lines());

  // The refusal ended that connection; the client makes a new one.
  auto next = echo(ui, "next");
  EXPECT_EQ("", runCmd(*client, next));
  EXPECT_EQ(textObject("next"), next->response);
  EXPECT_EQ(2u, client->connectionsMade());
  EXPECT_EQ(1u, log.lines().size());
}

TEST_F(TransportTest, CommandThatCannotBeBuiltIsRefused) {
  startServer();
  auto client = makeClient();
  std::string const error = runCmd(*client, std::make_shared<EchoCmd>(ui, kBroken));
  EXPECT_EQ("Ipc command type code 7 cannot be built: no such command here from 127.0.0.1:PORT", masked(error));
  EXPECT_EQ((Calls{"ERR:" + error}), log.lines());
  EXPECT_EQ("", runCmd(*client, echo(ui, "next")));
}

TEST_F(TransportTest, BodyOverTheLimitIsRefused) {
  startServer();
  RawSocket raw = helloConnection();
  raw.send(requestFrame(kEcho, wire::kFlagJsonBody) + u32(16777217));
  std::string const why = "Ipc Echo request body of 16777217 bytes is over the limit of 16777216 bytes";
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(refusalBytes(why), rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_EQ((Calls{"ERR:" + why}), log.lines());
  raw.close();
  expectServiceWorks();
}

TEST_F(TransportTest, BodyAtTheLimitIsAccepted) {
  startServer();
  RawSocket raw = helloConnection();
  // Mostly white space, which is quick to parse.
  std::string text = R"({"text":"at the limit"})";
  text.resize(Ipc::JsonCmdBase::MAX_BODY, ' ');
  ASSERT_EQ(16777216u, text.size());
  raw.send(requestFrame(kSize, wire::kFlagJsonBody) + body(text));
  std::string const answer = okFrame() + body(R"({"size":12})");
  EXPECT_EQ(answer, raw.read(answer.size()));
  EXPECT_EQ(1, svc->served.load());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, ClientRefusesToSendABodyOverTheLimit) {
  startServer();
  auto client = makeClient();
  std::string const filler(Ipc::JsonCmdBase::MAX_BODY + 1 - std::string(R"({"text":""})").size(), 'x');
  auto cmd = echo(ui, filler);
  std::string const why = "Ipc Echo request body of 16777217 bytes is over the limit of 16777216 bytes";
  EXPECT_EQ(why, runCmd(*client, cmd));
  EXPECT_EQ(why, cmd->transferError());
  EXPECT_EQ(0, svc->served.load());
  auto next = echo(ui, "small");
  EXPECT_EQ("", runCmd(*client, next));
  EXPECT_EQ(textObject("small"), next->response);
  EXPECT_TRUE(log.lines().empty());
}

// Sends a request of its own making through a real client; returns the
// client's error, which must equal the service's log line.
class RequestRefusalTest : public TransportTest {
 protected:
  void expectRefused(CmdI::TypeCode type, std::uint8_t flags, std::string const& after,
                     std::string const& why) {
    startServer();
    auto client = makeClient();
    auto cmd = std::make_shared<RawReqCmd>(ui, type, flags, after);
    EXPECT_EQ(why, runCmd(*client, cmd));
    EXPECT_EQ(why, cmd->transferError());
    EXPECT_EQ((Calls{"ERR:" + why}), log.lines());
    EXPECT_EQ(0, svc->served.load());
    auto next = echo(ui, "next");
    EXPECT_EQ("", runCmd(*client, next));
    EXPECT_EQ(textObject("next"), next->response);
    EXPECT_EQ(2u, client->connectionsMade());
  }
};

TEST_F(RequestRefusalTest, MalformedJson) {
  expectRefused(kEcho, wire::kFlagJsonBody, body(R"({"text":)"),
                "Ipc Echo request is not a JSON object: JSON error: unexpected token near end of file "
                "at line 1, column 8");
}

TEST_F(RequestRefusalTest, JsonThatIsNotAnObject) {
  expectRefused(kEcho, wire::kFlagJsonBody, body("[1,2]"),
                "Ipc Echo request is not a JSON object: JSON error: text is a JSON array, not an object");
}

TEST_F(RequestRefusalTest, EmptyJsonBody) {
  expectRefused(kEcho, wire::kFlagJsonBody, body(""),
                "Ipc Echo request is not a JSON object: JSON error: '[' or '{' expected near end of file "
                "at line 1, column 0");
}

TEST_F(RequestRefusalTest, JsonCommandWithoutItsBody) {
  expectRefused(kEcho, 0, "", "Ipc Echo request has no JSON body");
}

TEST_F(RequestRefusalTest, BareCommandWithABody) {
  expectRefused(kBare, wire::kFlagJsonBody, body("{}"), "Ipc Bare request carries a body it does not take");
}

TEST_F(RequestRefusalTest, DeserializeReqThatThrows) {
  expectRefused(kThrowing, wire::kFlagJsonBody, body(R"({"text":"no count"})"),
                "Ipc Throwing request refused: JSON error: Wrong type: empty. Expected type: integer");
}

TEST_F(TransportTest, DeserializeReqThatThrowsCallsTheFrameUpToIt) {
  startServer();
  auto client = makeClient();
  auto cmd = std::make_shared<ThrowingCmd>(ui);
  std::string const why = "Ipc Throwing request refused: JSON error: Wrong type: empty. Expected type: integer";
  EXPECT_EQ(why, runCmd(*client, cmd));
  ASSERT_TRUE(svc->calls.waitFor(4));
  EXPECT_EQ((Calls{"readReq", "deserializeReq", "onTransferError:" + why, "destroyed"}), svc->calls.calls());
  EXPECT_EQ((Calls{"sendReq", "serializeReq", "sendReqDone", "onTransferError:" + why}), ui->calls.calls());
}

TEST_F(TransportTest, HandlerThatThrowsIsRefused) {
  startServer();
  auto client = makeClient();
  auto cmd = std::make_shared<FailingCmd>(ui);
  std::string const why = "Ipc Failing failed in the service: the disk is full";
  EXPECT_EQ(why, runCmd(*client, cmd));
  EXPECT_EQ((Calls{"ERR:" + why}), log.lines());
  EXPECT_EQ("", runCmd(*client, echo(ui, "next")));
}

TEST_F(TransportTest, ClientThatLeavesInTheMiddleOfARequest) {
  startServer();
  RawSocket raw = helloConnection();
  raw.send(requestFrame(kEcho, wire::kFlagJsonBody) + u32(100) + R"({"text":)");
  raw.close();
  ASSERT_TRUE(waitUntil([&] { return server->connectionCount() == 0; }));
  EXPECT_EQ((Calls{"ERR:Ipc Echo: the client closed the connection"}), log.lines());
  EXPECT_EQ(0, svc->served.load());
  expectServiceWorks();
}

TEST_F(TransportTest, ClientThatStopsSendingInTheMiddleOfARequestIsAnswered) {
  startServer();
  RawSocket raw = helloConnection();
  raw.send(requestFrame(kEcho, wire::kFlagJsonBody) + u32(100) + R"({"text":)");
  raw.shutdownSend();
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(refusalBytes("Ipc Echo: the client closed the connection"), rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_EQ((Calls{"ERR:Ipc Echo: the client closed the connection"}), log.lines());
  raw.close();
  expectServiceWorks();
}

TEST_F(TransportTest, RequestThatStallsTimesOut) {
  Ipc::CmdServerOptions options = serverOptions();
  options.transferTimeout = 200ms;
  startServer(options);
  auto client = makeClient();
  auto cmd = std::make_shared<RawReqCmd>(ui, kEcho, wire::kFlagJsonBody, "", true);
  std::string const why = "Ipc Echo: no byte moved for 200 ms";
  EXPECT_EQ(why, runCmd(*client, cmd));
  EXPECT_EQ(why, cmd->transferError());
  EXPECT_EQ((Calls{"ERR:" + why}), log.lines());
  EXPECT_EQ("", runCmd(*client, echo(ui, "next")));
}

TEST_F(TransportTest, RawRequestThatStallsIsAnswered) {
  Ipc::CmdServerOptions options = serverOptions();
  options.transferTimeout = 200ms;
  startServer(options);
  RawSocket raw = helloConnection();
  raw.send(requestFrame(kEcho, wire::kFlagJsonBody) + u32(100) + "{");
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ(refusalBytes("Ipc Echo: no byte moved for 200 ms"), rest.data);
  EXPECT_EQ("end of stream", rest.end);
  EXPECT_EQ((Calls{"ERR:Ipc Echo: no byte moved for 200 ms"}), log.lines());
  raw.close();
  expectServiceWorks();
}

TEST_F(TransportTest, ResponseThatIsNotReadTimesOut) {
  Ipc::CmdServerOptions options = serverOptions();
  options.transferTimeout = 200ms;
  startServer(options);
  RawSocket raw = helloConnection();
  // 64 MiB in lines of 1 MiB: more than the connection can hold unread.
  raw.send(requestFrame(kStream, wire::kFlagJsonBody) + body(R"({"count":64,"width":1048576})"));
  ASSERT_TRUE(waitUntil([&] { return server->connectionCount() == 0; }));
  EXPECT_EQ((Calls{"ERR:Ipc Stream: no byte moved for 200 ms"}), log.lines());
  std::string const start = raw.read(wire::kFrameSize + 4);
  EXPECT_EQ(okFrame() + u32(1048576), start);
}

// ---------------------------------------------------------------------------
// Limits and time-outs

TEST_F(TransportTest, ConnectionsOverTheMaximumAreRefused) {
  Ipc::CmdServerOptions options = serverOptions();
  options.maxConnections = 2;
  startServer(options);
  auto first = makeClient();
  auto second = makeClient();
  auto third = makeClient();
  EXPECT_EQ("", runCmd(*first, echo(ui, "1")));
  EXPECT_EQ("", runCmd(*second, echo(ui, "2")));
  auto cmd = echo(ui, "3");
  EXPECT_EQ("Ipc connection refused: too many connections (2)", runCmd(*third, cmd));
  EXPECT_EQ("Ipc connection refused: too many connections (2)", cmd->transferError());
  EXPECT_EQ((Calls{"ERR:Ipc connection from 127.0.0.1:PORT refused: too many connections (2)"}),
            maskedLines(log));
  EXPECT_EQ("", runCmd(*first, echo(ui, "1 again")));
  EXPECT_EQ("", runCmd(*second, echo(ui, "2 again")));

  // Once one leaves, a place is free again; a refused connection that its
  // peer keeps open does not take it.
  second.reset();
  ASSERT_TRUE(waitUntil([&] { return server->connectionCount() == 1; }));
  RawSocket stubborn = RawSocket::connectTo(server->port());
  qxtest::Challenge const c = qxtest::sendHello(stubborn, hs::freshNonce());
  ASSERT_EQ(okFrame(), c.status);
  stubborn.send(std::string(wire::kProofSize, 'x'));
  std::string const refusal = refusalBytes("Ipc connection refused: wrong token");
  EXPECT_EQ(refusal, stubborn.read(refusal.size()));
  auto late = echo(ui, "3 again");
  EXPECT_EQ("", runCmd(*third, late));
  EXPECT_EQ(textObject("3 again"), late->response);
  EXPECT_EQ(2u, third->connectionsMade());
  std::vector<std::string> const lines = log.lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("ERR:Ipc connection from " + peer(stubborn) + " refused: wrong token", lines[1]);
}

TEST_F(TransportTest, ClientTimeOutsFollowTheIdentifier) {
  startServer();
  Ipc::CmdClientOptions options = clientOptions();
  // Short enough for a test, long enough for the service to have read the
  // request before the client gives up.
  options.quickTimeout = 300ms;
  options.transferTimeout = 400ms;
  options.longTimeout = 20s;
  auto client = makeClient(options);
  EXPECT_EQ(300ms, client->timeoutFor(CmdI::TIMEOUT_QUICK));
  EXPECT_EQ(20000ms, client->timeoutFor(CmdI::TIMEOUT_LONG));
  EXPECT_EQ(400ms, client->timeoutFor(CmdI::TIMEOUT_TRANSFER));
  EXPECT_EQ(300ms, client->timeoutFor(99));

  auto quick = std::make_shared<SlowCmd>(ui, CmdI::TIMEOUT_QUICK);
  EXPECT_EQ("Ipc Slow: timed out: no byte moved for 300 ms", runCmd(*client, quick));
  EXPECT_EQ("Ipc Slow: timed out: no byte moved for 300 ms", quick->transferError());
  svc->gate.release();
  ASSERT_TRUE(svc->gate.waitLeft(1));

  auto transfer = std::make_shared<SlowCmd>(ui, CmdI::TIMEOUT_TRANSFER);
  EXPECT_EQ("Ipc Slow: timed out: no byte moved for 400 ms", runCmd(*client, transfer));
  svc->gate.release();
  ASSERT_TRUE(svc->gate.waitLeft(2));

  auto unknownId = std::make_shared<SlowCmd>(ui, 99);
  EXPECT_EQ("Ipc Slow: timed out: no byte moved for 300 ms", runCmd(*client, unknownId));
  svc->gate.release();
  ASSERT_TRUE(svc->gate.waitLeft(3));

  Outcome outcome;
  auto slow = sendHeld(*client, "worth the wait", outcome);
  ASSERT_TRUE(svc->gate.waitEntered(4));
  svc->gate.release();
  EXPECT_EQ("", outcome.get());
  EXPECT_EQ(textObject("worth the wait"), slow->response);
  EXPECT_EQ(4u, client->connectionsMade());
  // The service wrote its late answers to connections that were gone:
  // nothing to report.
  server->stop();
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, ConnectingWhereNothingListens) {
  RawPort nothing(false);
  ASSERT_TRUE(nothing.bound());
  Ipc::CmdClientOptions options;
  options.port = nothing.port();
  auto client = makeClient(options);
  auto cmd = echo(ui, "anyone?");
  std::string const why =
      "Ipc cannot connect to the service at 127.0.0.1:" + std::to_string(nothing.port()) + ": Connection refused";
  EXPECT_EQ(why, runCmd(*client, cmd));
  EXPECT_EQ(why, cmd->transferError());
  EXPECT_EQ(0u, client->connectionsMade());
}

TEST_F(TransportTest, ConnectingWhereNothingListensOnIp6) {
  if (!ip6LoopbackWorks()) GTEST_SKIP() << "no IPv6 loopback";
  RawPort nothing(false, true);
  ASSERT_TRUE(nothing.bound());
  Ipc::CmdClientOptions options;
  options.host = "::1";
  options.port = nothing.port();
  auto client = makeClient(options);
  EXPECT_EQ("Ipc cannot connect to the service at [::1]:" + std::to_string(nothing.port()) +
                ": Connection refused",
            runCmd(*client, echo(ui, "anyone?")));
}

TEST_F(TransportTest, ServiceAnswersOnIp6Too) {
  if (!ip6LoopbackWorks()) GTEST_SKIP() << "no IPv6 loopback";
  Ipc::CmdServerOptions options = serverOptions();
  options.forceIp4 = false;
  startServer(options);
  Ipc::CmdClientOptions six = clientOptions();
  six.host = "::1";
  auto client6 = makeClient(six);
  auto cmd = echo(ui, "over IPv6");
  EXPECT_EQ("", runCmd(*client6, cmd));
  EXPECT_EQ(textObject("over IPv6"), cmd->response);
  auto client4 = makeClient();
  EXPECT_EQ("", runCmd(*client4, echo(ui, "over IPv4")));
  EXPECT_EQ(2u, server->connectionCount());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, PortTakenOnIp6OnlyLeavesIp4) {
  if (!ip6LoopbackWorks()) GTEST_SKIP() << "no IPv6 loopback";
  RawPort taken(true, true);
  ASSERT_TRUE(taken.bound());
  Ipc::CmdServerOptions options = serverOptions();
  options.forceIp4 = false;
  options.port = taken.port();
  startServer(options);
  EXPECT_EQ(taken.port(), server->port());
  EXPECT_EQ((Calls{"WARNING:Ipc cannot listen on [::1]:" + std::to_string(taken.port()) +
                   ": Address already in use; IPv4 only"}),
            log.lines());
  expectServiceWorks();
}

TEST_F(TransportTest, PortTakenOnIp4Throws) {
  RawPort taken(true);
  ASSERT_TRUE(taken.bound());
  Ipc::CmdServerOptions options = serverOptions();
  options.port = taken.port();
  server = std::make_unique<Ipc::CmdServer>(svcIo, options, token, buildCmd, svc);
  try {
    server->start();
    ADD_FAILURE() << "start() did not throw";
  } catch (std::runtime_error const& e) {
    EXPECT_EQ("Ipc cannot listen on 127.0.0.1:" + std::to_string(taken.port()) + ": Address already in use",
              std::string(e.what()));
  }
}

// ---------------------------------------------------------------------------
// Stopping, closing, and load

// The service's running thread is held by one visit; a standby serves the
// other clients meanwhile.
TEST_F(TransportTest, AVisitThatHoldsItsThreadDoesNotStallOtherClients) {
  startServer();
  auto holder = makeClient();
  Outcome held;
  auto slow = sendHeld(*holder, "held", held);
  ASSERT_TRUE(svc->gate.waitEntered(1));

  auto other = makeClient();
  for (int i = 0; i < 3; ++i) {
    auto cmd = echo(ui, "meanwhile " + std::to_string(i));
    ASSERT_EQ("", runCmd(*other, cmd));
    EXPECT_EQ(textObject("meanwhile " + std::to_string(i)), cmd->response);
  }
  EXPECT_FALSE(held.ready());
  svc->gate.release();
  EXPECT_EQ("", held.get());
  EXPECT_EQ(textObject("held"), slow->response);
}

TEST_F(TransportTest, StopWaitsForTheCommandInFlight) {
  startServer();
  auto client = makeClient();
  Outcome outcome;
  auto slow = sendHeld(*client, "finish me", outcome);
  ASSERT_TRUE(svc->gate.waitEntered(1));

  auto stopped = std::async(std::launch::async, [&] { server->stop(); });
  EXPECT_EQ(std::future_status::timeout, stopped.wait_for(200ms));
  EXPECT_FALSE(outcome.ready());
  svc->gate.release();
  EXPECT_EQ(std::future_status::ready, stopped.wait_for(kPatience));
  EXPECT_EQ(0u, server->connectionCount());
  ASSERT_TRUE(svc->calls.waitFor(8));
  EXPECT_EQ((Calls{"readReq", "deserializeReq", "readReqDone", "accept", "sendResp", "serializeResp",
                   "sendRespDone", "destroyed"}),
            svc->calls.calls());
  // The answer was on its way before the connection closed.
  EXPECT_EQ("", outcome.get());
  EXPECT_EQ(textObject("finish me"), slow->response);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, StopClosesIdleConnections) {
  startServer();
  auto client = makeClient();
  EXPECT_EQ("", runCmd(*client, echo(ui, "hi")));
  RawSocket raw = helloConnection();
  EXPECT_EQ(2u, server->connectionCount());
  server->stop();
  EXPECT_EQ(0u, server->connectionCount());
  RawSocket::Rest const rest = raw.readToEnd();
  EXPECT_EQ("", rest.data);
  EXPECT_EQ("end of stream", rest.end);
  server->stop();  // idempotent
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, ManyClientsInParallel) {
  startServer();
  constexpr int kClients = 8;
  constexpr int kCommands = 200;
  std::vector<std::thread> threads;
  std::vector<int> ok(kClients, 0);
  std::vector<std::size_t> connections(kClients, 0);
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      auto processor = std::make_shared<TestProcessor>();
      Ipc::CmdClient client(uiIo, clientOptions(), token);
      for (int i = 0; i < kCommands; ++i) {
        std::string const text = std::to_string(c) + "/" + std::to_string(i);
        auto cmd = echo(processor, text);
        if (client.run(cmd).empty() && cmd->response == textObject(text)) ++ok[c];
      }
      connections[c] = client.connectionsMade();
    });
  }
  for (std::thread& t : threads) t.join();
  for (int c = 0; c < kClients; ++c) {
    EXPECT_EQ(kCommands, ok[c]) << "client " << c;
    EXPECT_EQ(1u, connections[c]) << "client " << c;
  }
  EXPECT_EQ(kClients * kCommands, svc->served.load());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, OneClientSharedByThreads) {
  startServer();
  auto client = makeClient();
  constexpr int kThreads = 4;
  constexpr int kCommands = 100;
  std::vector<std::thread> threads;
  std::vector<int> ok(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      auto processor = std::make_shared<TestProcessor>();
      for (int i = 0; i < kCommands; ++i) {
        std::string const text = std::to_string(t) + "/" + std::to_string(i);
        auto cmd = echo(processor, text);
        if (client->run(cmd).empty() && cmd->response == textObject(text)) ++ok[t];
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(kCommands, ok[t]) << "thread " << t;
  EXPECT_EQ(1u, client->connectionsMade());
  EXPECT_EQ(kThreads * kCommands, svc->served.load());
}

TEST_F(TransportTest, ClientDestructorFailsWhatIsPending) {
  startServer();
  auto client = makeClient();
  auto slow = std::make_shared<SlowCmd>(ui, CmdI::TIMEOUT_LONG);
  auto queued1 = echo(ui, "queued 1");
  auto queued2 = echo(ui, "queued 2");
  Recorder order;
  std::vector<Outcome> outcomes(3);
  std::vector<std::shared_ptr<RecordingCmd>> cmds{slow, queued1, queued2};
  for (int i = 0; i < 3; ++i) {
    auto p = outcomes[i].promise;
    client->execute(cmds[i], [p, &order, i](std::shared_ptr<CmdI> const&, std::string const& error) {
      order.add(std::to_string(i) + ":" + error);
      p->set_value(error);
    });
  }
  ASSERT_TRUE(svc->gate.waitEntered(1));
  client.reset();
  // Every completion ran before the destructor returned.
  EXPECT_EQ((Calls{"0:Ipc the client is closing", "1:Ipc the client is closing", "2:Ipc the client is closing"}),
            order.calls());
  for (auto const& cmd : cmds) {
    EXPECT_EQ("Ipc the client is closing", cmd->transferError());
    EXPECT_EQ(nullptr, cmd->channel());
  }
  svc->gate.release();
  server->stop();
  EXPECT_EQ(1, svc->served.load());
}

// ---------------------------------------------------------------------------
// More refusals and failures seen by the client

TEST_F(TransportTest, RefusalStopsARequestStillBeingSent) {
  startServer();
  auto client = makeClient();
  auto cmd = std::make_shared<EchoCmd>(ui, kUnknown);
  cmd->request = textObject(std::string(12 << 20, 'x'));
  std::string const error = runCmd(*client, cmd);
  EXPECT_EQ("Ipc unknown command type code 200 from 127.0.0.1:PORT", masked(error));
  EXPECT_EQ((Calls{"ERR:" + error}), log.lines());
  EXPECT_EQ("", runCmd(*client, echo(ui, "next")));
}

// A command queued behind one that the service refuses while its request is
// still being written starts on a new connection, and nothing of the refused
// request may follow it there. Repeated, because the last pieces of the
// refused request are in flight at varying moments.
TEST_F(TransportTest, CommandQueuedBehindARefusedRequestGetsACleanConnection) {
  startServer();
  auto client = makeClient();
  std::string const big(2 << 20, 'x');
  constexpr int kRounds = 10;
  for (int round = 0; round < kRounds; ++round) {
    auto refused = std::make_shared<EchoCmd>(ui, kUnknown);
    refused->request = textObject(big);
    std::string const text = "next " + std::to_string(round);
    auto next = echo(ui, text);
    Outcome first;
    Outcome second;
    client->execute(refused, first.completion());
    client->execute(next, second.completion());
    EXPECT_EQ("Ipc unknown command type code 200 from 127.0.0.1:PORT", masked(first.get()));
    ASSERT_EQ("", second.get()) << "round " << round;
    EXPECT_EQ(textObject(text), next->response);
  }
  EXPECT_EQ(std::size_t(kRounds + 1), client->connectionsMade());
  EXPECT_EQ(Calls(kRounds, "ERR:Ipc unknown command type code 200 from 127.0.0.1:PORT"), maskedLines(log));
}

TEST_F(TransportTest, ResponseOverTheLimitIsRefusedByTheService) {
  startServer();
  auto client = makeClient();
  auto cmd = std::make_shared<BigCmd>(ui);
  std::string const why = "Ipc Big response body of 16777217 bytes is over the limit of 16777216 bytes";
  EXPECT_EQ(why, runCmd(*client, cmd));
  EXPECT_EQ((Calls{"ERR:" + why}), log.lines());
  EXPECT_EQ("", runCmd(*client, echo(ui, "next")));
}

TEST_F(TransportTest, RequestThatCannotBeWrittenFailsOnTheClient) {
  startServer();
  auto client = makeClient();
  auto cmd = std::make_shared<UnwritableCmd>(ui);
  std::string const why = "Ipc Unwritable failed: JSON error: no request today";
  EXPECT_EQ(why, runCmd(*client, cmd));
  EXPECT_EQ(why, cmd->transferError());
  EXPECT_EQ("", runCmd(*client, echo(ui, "next")));
  EXPECT_EQ(1, svc->served.load());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, PipelinedRequestsAreAnsweredInOrder) {
  startServer();
  RawSocket raw = helloConnection();
  raw.send(requestFrame(kEcho, wire::kFlagJsonBody) + body(R"({"text":"one"})") + requestFrame(kPing, 0) +
           requestFrame(kBare, 0) + requestFrame(kEcho, wire::kFlagJsonBody) + body(R"({"text":"two"})"));
  std::string const expected = okFrame() + body(R"({"text":"one"})") + okFrame() + okFrame() +
                               body(R"({"resp":"pong"})") + okFrame() + body(R"({"text":"two"})");
  EXPECT_EQ(expected, raw.read(expected.size()));
  EXPECT_EQ(4, svc->served.load());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TransportTest, CompletionMayIssueTheNextCommand) {
  startServer();
  auto client = makeClient();
  std::promise<int> allDone;
  std::function<void(int)> issue = [&](int i) {
    client->execute(echo(ui, std::to_string(i)), [&, i](std::shared_ptr<CmdI> const& cmd, std::string const& error) {
      auto const& e = static_cast<EchoCmd const&>(*cmd);
      if (!error.empty() || e.response != textObject(std::to_string(i))) {
        allDone.set_value(-i);
      } else if (i == 20) {
        allDone.set_value(i);
      } else {
        issue(i + 1);
      }
    });
  };
  issue(1);
  auto result = allDone.get_future();
  ASSERT_EQ(std::future_status::ready, result.wait_for(kPatience));
  EXPECT_EQ(20, result.get());
  EXPECT_EQ(1u, client->connectionsMade());
}

// A stand-in for the service that answers the first request with bytes of
// the test's choosing.
class BadServiceTest : public TransportTest {
 protected:
  // The client's error for an echo that the service answers with answer.
  std::string answerWith(std::string const& answer, bool thenClose = false) {
    RawPort service(true);
    EXPECT_TRUE(service.bound());
    Ipc::CmdClientOptions options;
    options.port = service.port();
    auto client = makeClient(options);
    auto cmd = echo(ui, "question");
    Outcome outcome;
    client->execute(cmd, outcome.completion());
    RawSocket conn = service.accept();
    EXPECT_EQ("", qxtest::answerHello(conn, token));
    std::string const request = requestFrame(kEcho, wire::kFlagJsonBody) + body(R"({"text":"question"})");
    EXPECT_EQ(request, conn.read(request.size()));
    conn.send(answer);
    if (thenClose) conn.close();
    std::string const error = outcome.get();
    EXPECT_EQ(error, cmd->transferError());
    return error;
  }
};

TEST_F(BadServiceTest, RefusalMessageReachesTheCommand) {
  EXPECT_EQ("Ipc the service says no", answerWith(refusalBytes("Ipc the service says no")));
}

TEST_F(BadServiceTest, RefusalWithoutAReason) {
  EXPECT_EQ("Ipc Echo: the service refused it without a reason", answerWith(refusalBytes("")));
}

TEST_F(BadServiceTest, AnswerThatIsNoFrame) {
  EXPECT_EQ("Ipc Echo: the service answered with not an IPC frame", answerWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(BadServiceTest, AnswerOfAnotherProtocolVersion) {
  std::string status = okFrame();
  status[2] = 9;
  EXPECT_EQ("Ipc Echo: the service answered with unsupported protocol version 9 (this side speaks 2)",
            answerWith(status + body("{}")));
}

TEST_F(BadServiceTest, ResponseThatIsNotAnObject) {
  EXPECT_EQ("Ipc Echo response is not a JSON object: JSON error: text is a JSON array, not an object",
            answerWith(okFrame() + body("[1]")));
}

TEST_F(BadServiceTest, ResponseBodyOverTheLimit) {
  EXPECT_EQ("Ipc Echo response body of 16777217 bytes is over the limit of 16777216 bytes",
            answerWith(okFrame() + u32(16777217)));
}

TEST_F(BadServiceTest, ServiceThatLeavesInTheMiddleOfTheResponse) {
  EXPECT_EQ("Ipc Echo: the service closed the connection", answerWith(okFrame() + u32(100) + "{", true));
}

TEST_F(TransportTest, ServiceThatNeverAnswersTheHello) {
  RawPort service(true);
  ASSERT_TRUE(service.bound());
  Ipc::CmdClientOptions options;
  options.port = service.port();
  options.connectTimeout = 500ms;
  auto client = makeClient(options);
  auto cmd = echo(ui, "hello?");
  Outcome outcome;
  client->execute(cmd, outcome.completion());
  RawSocket conn = service.accept();
  hs::Nonce clientNonce;
  EXPECT_EQ("", qxtest::readHello(conn, clientNonce));
  EXPECT_EQ("Ipc Echo: timed out: no byte moved for 500 ms", outcome.get());
  RawSocket::Rest const rest = conn.readToEnd();
  EXPECT_EQ("", rest.data);
  EXPECT_EQ("end of stream", rest.end);
}

// A failed exchange leaves nothing behind that the next one would report as
// its own failure.
TEST_F(TransportTest, EachFailureIsReportedWithItsOwnReason) {
  RawPort service(true);
  ASSERT_TRUE(service.bound());
  Ipc::CmdClientOptions options;
  options.port = service.port();
  auto client = makeClient(options);

  // The service drops the first connection, unread bytes and all, while the
  // request is still being written: the client's write fails.
  auto big = echo(ui, std::string(12 << 20, 'x'));
  Outcome first;
  client->execute(big, first.completion());
  {
    RawSocket conn = service.accept();
    EXPECT_EQ("", qxtest::answerHello(conn, token));
    EXPECT_EQ(requestFrame(kEcho, wire::kFlagJsonBody), conn.read(wire::kFrameSize));
  }
  // Which of these the system reports depends on whether the write or the
  // read meets the reset first, and on how far the write had got.
  std::string const firstError = first.get();
  EXPECT_TRUE(firstError == "Ipc Echo: Connection reset by peer" ||
              firstError == "Ipc Echo: Broken pipe" ||
              firstError == "Ipc Echo: the service closed the connection")
      << firstError;

  // The second connection ends before the hello is answered.
  Outcome second;
  client->execute(echo(ui, "small"), second.completion());
  {
    RawSocket conn = service.accept();
    hs::Nonce clientNonce;
    EXPECT_EQ("", qxtest::readHello(conn, clientNonce));
  }
  EXPECT_EQ("Ipc Echo: the service closed the connection", second.get());
  EXPECT_EQ(2u, client->connectionsMade());
}

}  // namespace
