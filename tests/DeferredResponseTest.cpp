// The deferred response of the service's transport: a handler that hands
// its command's work on returns at once; the connection waits for it without
// holding a thread and without its transfer time-out, answers once the work
// completes (from any thread), drops the result of a client that left, and
// the server's stop() cancels the wait and waits for the work to let go.
#include "shared/DeferredResponse.h"

#include "ipc/IpcCmdsLite.h"
#include "ipc/MsgsUItoSvc.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"
#include "tests/IpcTestProcessor.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// How long a test waits for something that should come at once (long enough
// for sanitizer builds running many tests at a time).
constexpr auto kPatience = 15s;

// A command whose work its handler handed on, the handle that ends the
// connection's wait for it, and the answer that the work leaves: JSON text,
// which the transport's thread puts into the command (a JSON document may
// not cross threads).
struct Parked {
  std::string method;
  std::shared_ptr<std::string> answer;
  std::unique_ptr<Ipc::DeferredResponse> wait;
};

class DeferringProcessor;

// A configuration test of three steps: the first passes at once, the
// second waits for the test to release it, the third never comes (the test
// ends).
class WaitingRunner : public Ipc::TestCfg::TestRunnerI {
 public:
  WaitingRunner(Ipc::TestCfg& cmd, DeferringProcessor& processor) : m_cmd(cmd), m_processor(processor) {}
  bool runStep() override;
  bool waiting() const override { return m_waiting; }

 private:
  Ipc::TestCfg& m_cmd;
  DeferringProcessor& m_processor;
  int m_step = 0;
  bool m_waiting = false;
};

// Defers every ServerRequest and every second step of a TestCfg, and keeps
// them for the test, which completes them from threads of its own.
class DeferringProcessor : public Ipc::CmdProcessorLiteI {
 public:
  void visit(Ipc::IsRunning& c) override { c.running = true; }
  void visit(Ipc::ServerRequest& c) override {
    auto const answer = std::make_shared<std::string>("{}");
    Parked parked{c.callName(), answer, std::make_unique<Ipc::DeferredResponse>(c, [&c, answer] {
                    c.payload = qxtest::parse(*answer);
                    c.sendResp();
                  })};
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back(std::move(parked));
    m_changed.notify_all();
  }
  void visit(Ipc::TestCfg& c) override { c.runner = std::make_unique<WaitingRunner>(c, *this); }

  void parkStep(std::unique_ptr<Ipc::DeferredResponse> wait) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_steps.push_back(std::move(wait));
    m_changed.notify_all();
  }
  // The n server calls parked first; fails the test when they do not come.
  std::vector<Parked> takeCalls(std::size_t n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    EXPECT_TRUE(m_changed.wait_for(lock, kPatience, [&] { return m_calls.size() >= n; }))
        << "only " << m_calls.size() << " of " << n << " server calls arrived";
    std::vector<Parked> taken;
    while (!m_calls.empty() && taken.size() < n) {
      taken.push_back(std::move(m_calls.front()));
      m_calls.erase(m_calls.begin());
    }
    return taken;
  }
  std::unique_ptr<Ipc::DeferredResponse> takeStep() {
    std::unique_lock<std::mutex> lock(m_mutex);
    EXPECT_TRUE(m_changed.wait_for(lock, kPatience, [&] { return !m_steps.empty(); })) << "no step waits";
    if (m_steps.empty()) return nullptr;
    std::unique_ptr<Ipc::DeferredResponse> step = std::move(m_steps.front());
    m_steps.erase(m_steps.begin());
    return step;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Parked> m_calls;
  std::vector<std::unique_ptr<Ipc::DeferredResponse>> m_steps;
};

bool WaitingRunner::runStep() {
  switch (m_step++) {
    case 0:
      m_cmd.respMsgs()->lines.push_back(Ipc::TST_LINE_START_PASS + "before the wait");
      return true;
    case 1:
      m_waiting = true;
      m_processor.parkStep(std::make_unique<Ipc::DeferredResponse>(m_cmd, [this] {
        m_waiting = false;
        m_cmd.respMsgs()->lines.push_back(Ipc::TST_LINE_START_PASS + "after the wait");
        m_cmd.execOneTest();
      }));
      return true;
    default:
      return false;
  }
}

class DeferredResponseTest : public ::testing::Test {
 protected:
  void startServer(std::chrono::milliseconds transferTimeout = 60s) {
    Ipc::CmdServerOptions options;
    options.forceIp4 = true;
    options.transferTimeout = transferTimeout;
    server = std::make_unique<Ipc::CmdServer>(svcIo, options, token, &qxtest::makeLiteCmd, processor);
    server->start();
  }
  std::unique_ptr<Ipc::CmdClient> makeClient() {
    Ipc::CmdClientOptions options;
    options.port = server->port();
    return std::make_unique<Ipc::CmdClient>(uiIo, options, token);
  }
  static std::shared_ptr<Ipc::ServerRequest> serverCall(std::string const& method) {
    return std::make_shared<Ipc::ServerRequest>(nullptr, method, json::Object(), nullptr);
  }
  // Runs cmd on client in a thread of its own; the future holds the error.
  static std::future<std::string> runAsync(Ipc::CmdClient& client, std::shared_ptr<Ipc::CmdI> cmd) {
    return std::async(std::launch::async, [&client, cmd] { return client.run(cmd); });
  }
  static std::string resultOf(std::future<std::string>& result) {
    if (result.wait_for(kPatience) != std::future_status::ready) return "<no completion>";
    return result.get();
  }
  // Asks IsRunning on client (connected already); returns how long the
  // answer took.
  static Clock::duration timeIsRunning(Ipc::CmdClient& client) {
    auto const cmd = std::make_shared<Ipc::IsRunning>(nullptr);
    Clock::time_point const start = Clock::now();
    EXPECT_EQ("", client.run(cmd));
    Clock::duration const took = Clock::now() - start;
    EXPECT_TRUE(cmd->running);
    return took;
  }
  // Waits until the server has no connection left.
  bool connectionsEnd() {
    Clock::time_point const until = Clock::now() + kPatience;
    while (server->connectionCount() != 0 && Clock::now() < until) std::this_thread::sleep_for(5ms);
    return server->connectionCount() == 0;
  }

  Ipc::IoThreads svcIo;
  Ipc::IoThreads uiIo;
  std::shared_ptr<DeferringProcessor> processor = std::make_shared<DeferringProcessor>();
  Ipc::SecretToken const token = Ipc::SecretToken::generate();
  std::unique_ptr<Ipc::CmdServer> server;  // stopped before the threads
};

// Four server calls wait for their work: other clients are served at once,
// and each call gets the answer its work left, completed from a thread of
// its own.
TEST_F(DeferredResponseTest, OtherCommandsAreAnsweredWhileFourWait) {
  startServer();
  std::vector<std::unique_ptr<Ipc::CmdClient>> callers;
  std::vector<std::shared_ptr<Ipc::ServerRequest>> calls;
  std::vector<std::future<std::string>> results;
  for (int i = 0; i < 4; ++i) {
    callers.push_back(makeClient());
    calls.push_back(serverCall("call-" + std::to_string(i)));
    results.push_back(runAsync(*callers.back(), calls.back()));
  }
  std::vector<Parked> parked = processor->takeCalls(4);
  ASSERT_EQ(4u, parked.size());

  auto const asker = makeClient();
  EXPECT_EQ("", asker->run(std::make_shared<Ipc::IsRunning>(nullptr)));  // connects
  for (int i = 0; i < 5; ++i) {
    auto const took = std::chrono::duration_cast<std::chrono::milliseconds>(timeIsRunning(*asker));
    EXPECT_LT(took.count(), 50) << "IsRunning number " << i;
  }
  for (std::future<std::string>& r : results) EXPECT_EQ(std::future_status::timeout, r.wait_for(0s));

  std::vector<std::thread> workers;
  for (Parked& p : parked) {
    workers.emplace_back([&p] {
      *p.answer = R"({"answered":")" + p.method + R"("})";
      p.wait->complete();
    });
  }
  for (std::thread& w : workers) w.join();
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE("call-" + std::to_string(i));
    EXPECT_EQ("", resultOf(results[i]));
    EXPECT_EQ(R"({"answered":"call-)" + std::to_string(i) + R"("})", qxtest::text(calls[i]->payload));
  }
}

// The transfer time-out is for bytes that stop moving, not for work: a call
// whose work takes longer than it is answered.
TEST_F(DeferredResponseTest, TheTransferTimeoutDoesNotCutAWaitingCommand) {
  startServer(100ms);
  auto const caller = makeClient();
  auto const call = serverCall("slow");
  std::future<std::string> result = runAsync(*caller, call);
  std::vector<Parked> parked = processor->takeCalls(1);
  ASSERT_EQ(1u, parked.size());
  std::this_thread::sleep_for(500ms);
  EXPECT_FALSE(parked[0].wait->cancelled());
  *parked[0].answer = R"({"late":true})";
  parked[0].wait->complete();
  EXPECT_EQ("", resultOf(result));
  EXPECT_EQ(R"({"late":true})", qxtest::text(call->payload));
}

// Work that lets go of its handle without a result fails the exchange, and
// the client learns why.
TEST_F(DeferredResponseTest, WorkEndingWithoutAResultIsRefusedWithTheReason) {
  startServer();
  auto const caller = makeClient();
  std::future<std::string> result = runAsync(*caller, serverCall("dropped"));
  std::vector<Parked> parked = processor->takeCalls(1);
  ASSERT_EQ(1u, parked.size());
  parked[0].wait.reset();
  EXPECT_EQ("Ipc \"Server Call\" failed in the service: its work ended without a result", resultOf(result));
  // The connection was refused, the service goes on.
  auto const asker = makeClient();
  timeIsRunning(*asker);
}

// A client that leaves while its call waits: the wait is cancelled at once
// (the work may stop), the late result is dropped, the connection ends, and
// nothing is logged as an error.
TEST_F(DeferredResponseTest, AClientThatLeavesCancelsTheWait) {
  qxtest::LogCapture log;
  startServer();
  auto caller = makeClient();
  std::future<std::string> result = runAsync(*caller, serverCall("abandoned"));
  std::vector<Parked> parked = processor->takeCalls(1);
  ASSERT_EQ(1u, parked.size());
  caller.reset();
  EXPECT_EQ("Ipc the client is closing", resultOf(result));
  Clock::time_point const until = Clock::now() + kPatience;
  while (!parked[0].wait->cancelled() && Clock::now() < until) std::this_thread::sleep_for(5ms);
  EXPECT_TRUE(parked[0].wait->cancelled());
  *parked[0].answer = R"({"late":true})";
  parked[0].wait->complete();
  EXPECT_TRUE(connectionsEnd());
  for (std::string const& line : log.lines()) {
    EXPECT_EQ(std::string::npos, line.find("ERR:")) << line;
    EXPECT_EQ(std::string::npos, line.find("WARNING:")) << line;
  }
}

// stop() cancels the waits of its connections and returns once the work
// has let go of them, not before.
TEST_F(DeferredResponseTest, StopCancelsTheWaitAndWaitsForTheWork) {
  startServer();
  auto const caller = makeClient();
  std::future<std::string> result = runAsync(*caller, serverCall("hanging"));
  std::vector<Parked> parked = processor->takeCalls(1);
  ASSERT_EQ(1u, parked.size());
  std::future<void> stopped = std::async(std::launch::async, [this] { server->stop(); });
  Clock::time_point const until = Clock::now() + kPatience;
  while (!parked[0].wait->cancelled() && Clock::now() < until) std::this_thread::sleep_for(5ms);
  EXPECT_TRUE(parked[0].wait->cancelled());
  EXPECT_EQ(std::future_status::timeout, stopped.wait_for(200ms)) << "stop() did not wait for the work";
  Clock::time_point const released = Clock::now();
  parked[0].wait->complete();
  ASSERT_EQ(std::future_status::ready, stopped.wait_for(kPatience));
  EXPECT_LT(Clock::now() - released, 1s);
  EXPECT_NE("", resultOf(result));  // the service closed the connection
}

// A configuration test whose second step waits: the line of the first step
// reaches the client before the wait ends, other clients are served
// meanwhile, and the lines arrive in order, ended as always.
TEST_F(DeferredResponseTest, ATestStreamsItsLinesAroundAWaitingStep) {
  startServer();
  auto const tester = makeClient();
  auto const test = std::make_shared<Ipc::TestCfg>(nullptr, qxtest::serviceSettings());
  std::future<std::string> result = runAsync(*tester, test);
  std::unique_ptr<Ipc::DeferredResponse> step = processor->takeStep();
  ASSERT_TRUE(step);

  std::string line;
  Clock::time_point const until = Clock::now() + kPatience;
  while (!test->getRespLine(line) && Clock::now() < until) std::this_thread::sleep_for(5ms);
  EXPECT_EQ(Ipc::TST_LINE_START_PASS + "before the wait", line);
  auto const asker = makeClient();
  EXPECT_EQ("", asker->run(std::make_shared<Ipc::IsRunning>(nullptr)));  // connects
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(timeIsRunning(*asker)).count(), 50);

  std::thread([&step] { step->complete(); }).join();
  EXPECT_EQ("", resultOf(result));
  ASSERT_TRUE(test->getRespLine(line));
  EXPECT_EQ(Ipc::TST_LINE_START_PASS + "after the wait", line);
  EXPECT_FALSE(test->getRespLine(line));  // only the end is left
  EXPECT_EQ(1u, test->respMsgs()->lines.size());
}

// Only a command in a service's exchange may defer its response.
TEST_F(DeferredResponseTest, ACommandOutsideAnExchangeCannotDefer) {
  Ipc::IsRunning cmd(nullptr);
  try {
    Ipc::DeferredResponse wait(cmd);
    FAIL() << "no exception";
  } catch (std::logic_error const& e) {
    EXPECT_STREQ("Ipc \"Is Running\" cannot defer its response: it is in no exchange of a service's connection",
                 e.what());
  }
}

}  // namespace
