// The service's calls of other servers (ServerRequest, the server checks of
// TestCfg) run on its worker pool, never on a transport thread: while they
// hang on a server that accepts and never answers, IsRunning is answered
// within 50 ms; they end with the HTTP time-out's error; a client that
// leaves abandons its call; stop() ends promptly; a full pool answers at once.
#include "apps/ConfigFile.h"
#include "apps/svc/SpoolPolicy.h"
#include "apps/svc/SvcProcessor.h"
#include "apps/svc/WorkerPool.h"
#include "ipc/IpcCmdsLite.h"
#include "ipc/MsgsUItoSvc.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"
#include "tests/RawSocket.h"
#include "tests/SpoolTestUtil.h"
#include "tests/TestUtil.h"

#include <poll.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using qxtest::RawSocket;

constexpr auto kPatience = 15s;

// A server that takes connections and never answers; it keeps those it
// accepted open until it dies.
class SilentServer {
 public:
  SilentServer() : m_listener(RawSocket::listenLoopback(m_port)) { EXPECT_TRUE(m_listener.valid()); }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/"; }
  // Waits until n more callers have connected; false after kPatience.
  bool accept(std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
      pollfd p{m_listener.fd(), POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) != 1) return false;
      m_callers.push_back(m_listener.accept());
    }
    return true;
  }

 private:
  std::uint16_t m_port = 0;
  RawSocket m_listener;
  std::vector<RawSocket> m_callers;
};

// libcurl's error once the HTTP time-out of secs seconds has passed.
std::string timedOutError(int secs) {
  return "Operation timed out after " + std::to_string(secs) + R"(\d\d\d milliseconds with 0 bytes received)";
}

// What a call to the silent server answers then (a pattern).
std::string timedOutAnswer(SilentServer const& server, int secs) {
  return R"(\{"error":"the server at )" + std::regex_replace(server.url(), std::regex(R"([.])"), R"(\.)") +
         " does not answer: " + timedOutError(secs) + R"("\})";
}

class SvcServerCallWorkersTest : public ::testing::Test {
 protected:
  SvcServerCallWorkersTest()
      : settings(qxtest::spoolSettings(tmp / "in", tmp / "out", tmp / "backup")),
        pipeline(settings, qxtest::pipelineOptions(tmp / "state")) {}

  void SetUp() override { ASSERT_EQ("", qxsvc::prepareFolders(settings)); }
  void TearDown() override {
    if (server) server->stop();
  }

  void startService(long httpTimeoutSecs, unsigned workerCount = qxsvc::WorkerPool::kThreads,
                    std::size_t queueLimit = qxsvc::WorkerPool::kQueueLimit) {
    workers = std::make_unique<qxsvc::WorkerPool>(workerCount, queueLimit);
    processor = std::make_shared<qxsvc::SvcProcessor>(settings, tmp / "config.json", pipeline, *workers,
                                                      httpTimeoutSecs);
    Ipc::CmdServerOptions options;
    options.forceIp4 = true;
    server = std::make_unique<Ipc::CmdServer>(
        svcIo, options, token,
        [](Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p) -> std::shared_ptr<Ipc::CmdI> {
          return Ipc::createLiteCmd(type, p, boost::filesystem::path());
        },
        processor);
    server->start();
    processor->setServicePort(server->port(), true);
  }
  std::unique_ptr<Ipc::CmdClient> makeClient() {
    Ipc::CmdClientOptions options;
    options.port = server->port();
    return std::make_unique<Ipc::CmdClient>(uiIo, options, token);
  }
  static std::shared_ptr<Ipc::ServerRequest> callTo(SilentServer const& target) {
    Inet::InetCfg cfg{std::string()};
    cfg.setServerAddress(target.url());
    return std::make_shared<Ipc::ServerRequest>(nullptr, "hang", json::Object(), &cfg);
  }
  static std::future<std::string> runAsync(Ipc::CmdClient& client, std::shared_ptr<Ipc::CmdI> cmd) {
    return std::async(std::launch::async, [&client, cmd] { return client.run(cmd); });
  }
  static std::string resultOf(std::future<std::string>& result) {
    if (result.wait_for(kPatience) != std::future_status::ready) return "<no completion>";
    return result.get();
  }
  // A client that has connected already, so that what is timed is the
  // answer alone.
  std::unique_ptr<Ipc::CmdClient> connectedClient() {
    auto client = makeClient();
    EXPECT_EQ("", client->run(std::make_shared<Ipc::IsRunning>(nullptr)));
    return client;
  }
  // Asks IsRunning five times; each answer must come within 50 ms.
  static void expectIsRunningWithin50ms(Ipc::CmdClient& asker) {
    for (int i = 0; i < 5; ++i) {
      auto const cmd = std::make_shared<Ipc::IsRunning>(nullptr);
      Clock::time_point const start = Clock::now();
      EXPECT_EQ("", asker.run(cmd));
      auto const took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
      EXPECT_LT(took.count(), 50) << "IsRunning number " << i;
      EXPECT_TRUE(cmd->running);
    }
  }

  qxtest::TempDir tmp;
  Settings const settings;
  qxsvc::Pipeline pipeline;
  std::unique_ptr<qxsvc::WorkerPool> workers;  // outlives the server
  std::shared_ptr<qxsvc::SvcProcessor> processor;
  Ipc::IoThreads svcIo;
  Ipc::IoThreads uiIo;
  Ipc::SecretToken const token = Ipc::SecretToken::generate();
  std::unique_ptr<Ipc::CmdServer> server;
};

TEST_F(SvcServerCallWorkersTest, IsRunningIsAnsweredWhileFourServerCallsHang) {
  SilentServer silent;
  startService(2);
  auto const asker = connectedClient();
  std::vector<std::unique_ptr<Ipc::CmdClient>> callers;
  std::vector<std::shared_ptr<Ipc::ServerRequest>> calls;
  std::vector<std::future<std::string>> results;
  Clock::time_point const start = Clock::now();
  for (int i = 0; i < 4; ++i) {
    callers.push_back(makeClient());
    calls.push_back(callTo(silent));
    results.push_back(runAsync(*callers.back(), calls.back()));
  }
  ASSERT_TRUE(silent.accept(4)) << "the four calls did not reach the server";
  expectIsRunningWithin50ms(*asker);
  // All of it while the four hung: none could have timed out yet.
  EXPECT_LT(Clock::now() - start, 2s);
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE("call " + std::to_string(i));
    EXPECT_EQ("", resultOf(results[i]));
    std::string const answer = qxtest::text(calls[i]->payload);
    EXPECT_TRUE(std::regex_match(answer, std::regex(timedOutAnswer(silent, 2)))) << answer;
  }
  EXPECT_GE(Clock::now() - start, 2s);
}

TEST_F(SvcServerCallWorkersTest, ATestWhoseServerCheckHangsDoesNotDelayIsRunning) {
  SilentServer silent;
  startService(2);
  auto const asker = connectedClient();
  Settings tested = qxapp::independentCopy(settings);
  tested.InetConfig.setServerAddress(silent.url());
  auto const tester = makeClient();
  auto const test = std::make_shared<Ipc::TestCfg>(nullptr, tested);
  Clock::time_point const start = Clock::now();
  std::future<std::string> result = runAsync(*tester, test);
  ASSERT_TRUE(silent.accept(1)) << "the server check did not reach the server";
  expectIsRunningWithin50ms(*asker);
  EXPECT_LT(Clock::now() - start, 2s);
  EXPECT_EQ("", resultOf(result));
  std::vector<std::string> lines;
  for (std::string line; test->getRespLine(line);) lines.push_back(line);
  std::string const check = Ipc::TST_LINE_START_ERR + "The server \"" + silent.url() + "\" does not answer";
  auto const at = std::find(lines.begin(), lines.end(), check);
  ASSERT_NE(lines.end(), at) << "no line " << check;
  ASSERT_NE(lines.end(), at + 1);
  EXPECT_TRUE(std::regex_match(
      at[1], std::regex(Ipc::TST_LINE_START_DESCR + timedOutError(2))))
      << at[1];
  // The checks after the servers' still ran, in their order.
  ASSERT_NE(lines.end(), at + 2);
  EXPECT_EQ(Ipc::TST_LINE_START_WARN + "No SMTP server is set: no e-mail notices", at[2]);
}

// A client that leaves abandons its call long before the HTTP time-out, and
// the service says nothing of it in its log.
TEST_F(SvcServerCallWorkersTest, AClientThatLeavesAbandonsItsServerCall) {
  qxtest::LogCapture log;
  SilentServer silent;
  startService(30);
  auto const asker = connectedClient();
  auto caller = makeClient();
  std::future<std::string> result = runAsync(*caller, callTo(silent));
  ASSERT_TRUE(silent.accept(1));
  Clock::time_point const left = Clock::now();
  caller.reset();
  EXPECT_EQ("Ipc the client is closing", resultOf(result));
  // The asker's connection is the one left.
  while (server->connectionCount() != 1 && Clock::now() - left < kPatience) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(1u, server->connectionCount());
  EXPECT_LT(Clock::now() - left, 5s);
  expectIsRunningWithin50ms(*asker);
  for (std::string const& line : log.lines()) {
    EXPECT_EQ(std::string::npos, line.find("ERR:")) << line;
    EXPECT_EQ(std::string::npos, line.find("WARNING:")) << line;
  }
}

TEST_F(SvcServerCallWorkersTest, StopWhileServerCallsHangEndsPromptly) {
  SilentServer silent;
  startService(30);
  std::vector<std::unique_ptr<Ipc::CmdClient>> callers;
  std::vector<std::future<std::string>> results;
  for (int i = 0; i < 4; ++i) {
    callers.push_back(makeClient());
    results.push_back(runAsync(*callers.back(), callTo(silent)));
  }
  ASSERT_TRUE(silent.accept(4));
  Clock::time_point const start = Clock::now();
  server->stop();
  EXPECT_LT(Clock::now() - start, 3s);
  for (std::future<std::string>& r : results) EXPECT_NE("", resultOf(r));  // the service closed them
}

// With every worker busy and the queue full, a call is answered at once
// with the reason, and the call already taken is not disturbed.
TEST_F(SvcServerCallWorkersTest, AFullPoolAnswersAtOnce) {
  SilentServer silent;
  startService(1, 1, 0);
  auto const refusedCaller = connectedClient();
  auto const caller = makeClient();
  auto const call = callTo(silent);
  std::future<std::string> result = runAsync(*caller, call);
  ASSERT_TRUE(silent.accept(1));  // the only worker is busy
  auto const refused = callTo(silent);
  Clock::time_point const start = Clock::now();
  EXPECT_EQ("", refusedCaller->run(refused));
  EXPECT_LT(Clock::now() - start, 500ms);
  EXPECT_EQ(R"({"error":"the service is busy with server calls (1 running, 0 waiting); try again later"})",
            qxtest::text(refused->payload));
  EXPECT_EQ("", resultOf(result));
  std::string const answer = qxtest::text(call->payload);
  EXPECT_TRUE(std::regex_match(answer, std::regex(timedOutAnswer(silent, 1)))) << answer;
}

}  // namespace
