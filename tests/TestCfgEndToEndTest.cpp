// Ipc::TestCfg over the real transport on loopback: a service (CmdServer with
// the lite factory and a processor whose visit installs a scripted test) and
// a user interface (CmdClient, or a raw socket speaking the connection's byte
// layout), including either side going away in the middle of the stream.
#include "ipc/IpcCmdsLite.h"
#include "ipc/MsgsUItoSvc.h"
#include "json/Json.h"
#include "settings/Settings.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"
#include "shared/transport/Wire.h"
#include "tests/ProcessHarness.h"
#include "tests/RawHandshake.h"
#include "tests/RawSocket.h"
#include "tests/TestUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Ipc::TestCfg;

// The longest any test waits for something that another thread or process
// does; reaching it fails the test.
constexpr std::chrono::seconds kWait{30};

std::string const kTestCfgName = "\"Test Configuration\"";
// What the service logs when the user interface left in the middle of the
// stream: the peer's close turns the next write into one of these.
std::set<std::string> const kClientGoneLines{
    "ERR:Ipc " + kTestCfgName + ": Broken pipe",
    "ERR:Ipc " + kTestCfgName + ": Connection reset by peer"};

Settings settingsOf(std::string const& account) {
  return Settings(qxtest::parse(R"({"AccountId":")" + account + R"(","SpoolerId":42})"));
}

std::string lengthRecord(std::uint64_t n) {
  std::string out(8, '\0');
  for (int i = 0; i < 8; ++i) out[i] = static_cast<char>((n >> (8 * i)) & 0xff);
  return out;
}

std::string record(std::string const& line) { return lengthRecord(line.size()) + line; }

std::deque<std::string> queueOf(TestCfg const& cmd) {
  boost::lock_guard<boost::mutex> lock(cmd.respMsgs()->mutex);
  return cmd.respMsgs()->lines;
}

// ---------------------------------------------------------------------------
// The service: a scripted test per TestCfg.

// What one test does: the lines of each step, in order; the step at
// blockAtStep first waits until the latch is opened; after the scripted steps
// an endless test goes on with one line per step, otherwise it finishes.
struct Plan {
  std::vector<std::vector<std::string>> steps;
  int blockAtStep = -1;
  bool endless = false;
};

// Shared by the service's processor, its runners and the test thread.
class ServiceState {
 public:
  void addPlan(Plan plan) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_plans.push_back(std::move(plan));
  }

  void openLatch() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_latchOpen = true;
    m_changed.notify_all();
  }

  // Waits until pred (called under the lock) holds; false after kWait.
  template <class Pred>
  bool waitFor(Pred pred) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, kWait, [&] { return pred(*this); });
  }

  int destroyedCount() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return runnersDestroyed;
  }
  std::vector<std::string> accounts() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_accounts;
  }

  // For the processor and the runners.
  Plan takePlan(std::string const& account) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_accounts.push_back(account);
    ++runnersMade;
    if (m_plans.empty()) return Plan{{{Ipc::TST_LINE_START_PASS + "ok"}}};
    Plan plan = std::move(m_plans.front());
    m_plans.pop_front();
    return plan;
  }
  void waitAtLatch() {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++blocked;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_latchOpen; });
  }
  void runnerDestroyed() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++runnersDestroyed;
    m_changed.notify_all();
  }

  // Read under the lock, inside waitFor's predicate.
  int blocked = 0;            // runners that reached the latch
  int runnersMade = 0;
  int runnersDestroyed = 0;

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Plan> m_plans;
  std::vector<std::string> m_accounts;
  bool m_latchOpen = false;
};

class PlannedRunner : public TestCfg::TestRunnerI {
 public:
  PlannedRunner(TestCfg& cmd, Plan plan, std::shared_ptr<ServiceState> state)
      : m_cmd(cmd), m_plan(std::move(plan)), m_state(std::move(state)) {}
  ~PlannedRunner() override { m_state->runnerDestroyed(); }

  bool runStep() override {
    std::size_t const step = m_step++;
    if (static_cast<int>(step) == m_plan.blockAtStep) m_state->waitAtLatch();
    std::deque<std::string>& lines = m_cmd.respMsgs()->lines;
    if (step < m_plan.steps.size()) {
      for (std::string const& line : m_plan.steps[step]) lines.push_back(line);
      return true;
    }
    if (m_plan.endless) {
      lines.push_back(Ipc::TST_LINE_START_PASS + "more " + std::to_string(step));
      return true;
    }
    return false;
  }

 private:
  TestCfg& m_cmd;
  Plan const m_plan;
  std::shared_ptr<ServiceState> const m_state;
  std::size_t m_step = 0;
};

class ServiceProcessor : public Ipc::CmdProcessorLiteI {
 public:
  explicit ServiceProcessor(std::shared_ptr<ServiceState> state) : m_state(std::move(state)) {}

  void visit(Ipc::IsRunning& c) override { c.running = true; }

  void visit(Ipc::TestCfg& c) override {
    std::unique_ptr<Settings> const settings = c.pSetts();
    c.runner = std::make_unique<PlannedRunner>(c, m_state->takePlan(settings->AccountId), m_state);
  }

 private:
  std::shared_ptr<ServiceState> const m_state;
};

Ipc::CmdFactory liteFactory(boost::filesystem::path spool) {
  return [spool](Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p) {
    return std::shared_ptr<Ipc::CmdI>(Ipc::createLiteCmd(type, p, spool));
  };
}

// ---------------------------------------------------------------------------
// The user interface's processor.

class UiRecorder : public Ipc::CmdProcessorI {
 public:
  struct Call {
    TestCfg const* cmd;                          // null when not a TestCfg
    TestCfg::SharedRespMsgs const* queue;        // the queue it shares
    std::vector<std::string> linesTaken;         // what getRespLine gave on it
  };

  explicit UiRecorder(bool takeLines) : m_takeLines(takeLines) {}

  void processCmd(std::shared_ptr<Ipc::CmdI> cmd) override {
    auto* const testCfg = dynamic_cast<TestCfg*>(cmd.get());
    Call call{testCfg, testCfg ? testCfg->respMsgs().get() : nullptr, {}};
    if (testCfg && m_takeLines) {
      std::string line;
      while (testCfg->getRespLine(line)) call.linesTaken.push_back(line);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back(std::move(call));
    m_changed.notify_all();
  }

  std::size_t callCount() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls.size();
  }
  std::vector<Call> calls() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
  }
  bool waitForCalls(std::size_t n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, kWait, [&] { return m_calls.size() >= n; });
  }

 private:
  bool const m_takeLines;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Call> m_calls;
};

// What the completion of a command saw.
struct Outcome {
  std::string error;
  Ipc::CmdI const* cmd = nullptr;
  std::size_t processCmdCalls = 0;  // processCmd calls made before the completion
  std::deque<std::string> queue;    // the queue when the completion ran
};

// Receives the completion of one command. The callback shares the state, so
// a completion that comes late (from a client torn down after a failed
// check) finds it alive.
class Completion {
 public:
  Ipc::CmdClient::Completion callback(std::shared_ptr<UiRecorder> ui) {
    return [promise = m_promise, ui](std::shared_ptr<Ipc::CmdI> const& cmd,
                                     std::string const& error) {
      Outcome o;
      o.error = error;
      o.cmd = cmd.get();
      o.processCmdCalls = ui ? ui->callCount() : 0;
      if (auto const* t = dynamic_cast<TestCfg const*>(cmd.get())) o.queue = queueOf(*t);
      promise->set_value(std::move(o));
    };
  }
  // The outcome; fails the test when the completion did not come in time.
  Outcome get() {
    std::future<Outcome> f = m_promise->get_future();
    if (f.wait_for(kWait) != std::future_status::ready) {
      ADD_FAILURE() << "the command did not complete";
      Outcome none;
      none.error = "(no completion)";
      return none;
    }
    return f.get();
  }

 private:
  std::shared_ptr<std::promise<Outcome>> const m_promise = std::make_shared<std::promise<Outcome>>();
};

// ---------------------------------------------------------------------------
// Raw sockets, for a peer that speaks the byte layout itself.

using qxtest::RawSocket;

std::string statusOk() {
  unsigned char frame[Ipc::wire::kFrameSize];
  Ipc::wire::putStatusFrame(frame, Ipc::wire::kStatusOk, 0);
  return std::string(reinterpret_cast<char*>(frame), sizeof frame);
}

std::string testCfgRequest(std::string const& body) {
  unsigned char frame[Ipc::wire::kFrameSize + 4];
  Ipc::wire::putRequestFrame(frame, Ipc::TEST_CFG_TYPE, Ipc::wire::kFlagJsonBody);
  Ipc::wire::putU32(frame + Ipc::wire::kFrameSize, static_cast<std::uint32_t>(body.size()));
  return std::string(reinterpret_cast<char*>(frame), sizeof frame) + body;
}

// Reads one result record; false when the stream ended or broke.
bool readRecord(RawSocket const& s, std::string& line) {
  std::string len;
  if (!s.readExactly(8, len)) return false;
  std::uint64_t n = 0;
  for (int i = 7; i >= 0; --i) n = (n << 8) | static_cast<unsigned char>(len[i]);
  return s.readExactly(static_cast<std::size_t>(n), line);
}

// ---------------------------------------------------------------------------
// Service and user interface in this process.

class TestCfgEndToEnd : public ::testing::Test {
 protected:
  TestCfgEndToEnd() {
    Ipc::CmdServerOptions options;
    options.port = 0;
    options.forceIp4 = true;
    server = std::make_unique<Ipc::CmdServer>(svcIo, options, token, liteFactory(spool.path()),
                                              svcProcessor);
    server->start();
  }

  ~TestCfgEndToEnd() override {
    state->openLatch();  // a runner that still waits must be able to end
    client.reset();
    server->stop();
  }

  Ipc::CmdClientOptions clientOptions() const {
    Ipc::CmdClientOptions options;
    options.port = server->port();
    return options;
  }

  void newClient() { client = std::make_unique<Ipc::CmdClient>(uiIo, clientOptions(), token); }

  // The service still answers: an IsRunning, then a TestCfg of its default
  // plan (one line, "+ ok"), on a new client.
  void expectServiceStillServes() {
    newClient();
    auto const isRunning = std::make_shared<Ipc::IsRunning>(nullptr);
    EXPECT_EQ(client->run(isRunning), "");
    EXPECT_TRUE(isRunning->running);
    auto const ui = std::make_shared<UiRecorder>(true);
    auto const cmd = std::make_shared<TestCfg>(ui, settingsOf("acct-after"));
    EXPECT_EQ(client->run(cmd), "");
    std::vector<UiRecorder::Call> const calls = ui->calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].linesTaken, (std::vector<std::string>{"+ ok"}));
    EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{""}));
  }

  qxtest::LogCapture log;
  qxtest::TempDir spool;
  Ipc::SecretToken const token = Ipc::SecretToken::generate();
  Ipc::IoThreads svcIo;
  Ipc::IoThreads uiIo;
  std::shared_ptr<ServiceState> const state = std::make_shared<ServiceState>();
  std::shared_ptr<ServiceProcessor> const svcProcessor = std::make_shared<ServiceProcessor>(state);
  std::unique_ptr<Ipc::CmdServer> server;
  std::unique_ptr<Ipc::CmdClient> client;
};

TEST_F(TestCfgEndToEnd, LinesArriveInOrderOneProcessCmdEachAndTheEndThroughTheCompletion) {
  state->addPlan(Plan{{{},
                       {"+ server reachable"},
                       {},
                       {"- login refused", "    -> wrong key", "* no e-mail settings"},
                       {},
                       {"+ spool folder writable"}}});
  newClient();
  auto const ui = std::make_shared<UiRecorder>(true);
  auto const cmd = std::make_shared<TestCfg>(ui, settingsOf("acct-e2e"));
  Completion done;
  client->execute(cmd, done.callback(ui));
  Outcome const outcome = done.get();

  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.cmd, cmd.get());
  // Every line had been announced before the completion; the end was not.
  EXPECT_EQ(outcome.processCmdCalls, 5u);
  EXPECT_EQ(outcome.queue, (std::deque<std::string>{""}));
  std::vector<UiRecorder::Call> const calls = ui->calls();
  std::vector<std::string> const expected{"+ server reachable", "- login refused",
                                          "    -> wrong key", "* no e-mail settings",
                                          "+ spool folder writable"};
  ASSERT_EQ(calls.size(), expected.size());
  for (std::size_t i = 0; i < calls.size(); ++i) {
    ASSERT_NE(calls[i].cmd, nullptr) << "call " << i;
    EXPECT_NE(calls[i].cmd, cmd.get()) << "call " << i;
    EXPECT_EQ(calls[i].queue, cmd->respMsgs().get()) << "call " << i;
    EXPECT_EQ(calls[i].linesTaken, std::vector<std::string>{expected[i]}) << "call " << i;
  }
  std::string out = "untouched";
  EXPECT_FALSE(cmd->getRespLine(out));
  EXPECT_EQ(out, "untouched");
  EXPECT_EQ(cmd->transferError(), "");
  EXPECT_TRUE(state->waitFor([](ServiceState& s) { return s.runnersDestroyed == 1; }));
  EXPECT_EQ(state->accounts(), (std::vector<std::string>{"acct-e2e"}));
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

TEST_F(TestCfgEndToEnd, TestsRunBackToBackOnOneConnection) {
  state->addPlan(Plan{{{"+ first test"}}});
  state->addPlan(Plan{{{}, {"- second test", "    -> why"}}});
  newClient();
  auto const ui1 = std::make_shared<UiRecorder>(false);
  auto const first = std::make_shared<TestCfg>(ui1, settingsOf("acct-1"));
  EXPECT_EQ(client->run(first), "");
  auto const ui2 = std::make_shared<UiRecorder>(false);
  auto const second = std::make_shared<TestCfg>(ui2, settingsOf("acct-2"));
  EXPECT_EQ(client->run(second), "");
  EXPECT_EQ(queueOf(*first), (std::deque<std::string>{"+ first test", ""}));
  EXPECT_EQ(queueOf(*second), (std::deque<std::string>{"- second test", "    -> why", ""}));
  EXPECT_EQ(ui1->callCount(), 1u);
  EXPECT_EQ(ui2->callCount(), 2u);
  EXPECT_EQ(client->connectionsMade(), 1u);
  EXPECT_EQ(state->accounts(), (std::vector<std::string>{"acct-1", "acct-2"}));
}

TEST_F(TestCfgEndToEnd, TestThatFinishesAtOnceEndsWithOnlyTheEndMarker) {
  state->addPlan(Plan{});
  newClient();
  auto const ui = std::make_shared<UiRecorder>(true);
  auto const cmd = std::make_shared<TestCfg>(ui, settingsOf("acct-empty"));
  EXPECT_EQ(client->run(cmd), "");
  EXPECT_EQ(ui->callCount(), 0u);
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{""}));
}

// The user interface's own thread takes the lines while the transport's
// thread appends them: the queue's mutex is the only synchronisation.
TEST_F(TestCfgEndToEnd, UiThreadTakesLinesWhileTheTransportAppends) {
  Plan plan;
  std::vector<std::string> expected;
  for (int step = 0; step < 400; ++step) {
    std::vector<std::string> lines;
    for (int j = 0; j < step % 4; ++j) {
      lines.push_back(Ipc::TST_LINE_START_PASS + "check " + std::to_string(step) + "." +
                      std::to_string(j) + std::string(static_cast<std::size_t>(step % 37), '.'));
      expected.push_back(lines.back());
    }
    plan.steps.push_back(lines);
  }
  state->addPlan(plan);

  // Copies announced by processCmd, handed to the user interface's thread.
  struct Mailbox {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::shared_ptr<Ipc::CmdI>> copies;
    bool ended = false;
    std::string error;
  };
  auto const mailbox = std::make_shared<Mailbox>();
  class Forwarder : public Ipc::CmdProcessorI {
   public:
    explicit Forwarder(std::shared_ptr<Mailbox> m) : m_mailbox(std::move(m)) {}
    void processCmd(std::shared_ptr<Ipc::CmdI> cmd) override {
      std::lock_guard<std::mutex> lock(m_mailbox->mutex);
      m_mailbox->copies.push_back(std::move(cmd));
      m_mailbox->changed.notify_all();
    }

   private:
    std::shared_ptr<Mailbox> const m_mailbox;
  };

  newClient();
  auto const cmd = std::make_shared<TestCfg>(std::make_shared<Forwarder>(mailbox),
                                             settingsOf("acct-threads"));
  std::vector<std::string> taken;
  std::size_t copiesSeen = 0;
  bool timedOut = false;
  std::thread uiThread([&] {
    std::unique_lock<std::mutex> lock(mailbox->mutex);
    for (;;) {
      if (!mailbox->changed.wait_for(lock, kWait,
                                     [&] { return !mailbox->copies.empty() || mailbox->ended; })) {
        timedOut = true;
        return;
      }
      if (mailbox->copies.empty()) break;  // ended, and every copy handled
      std::shared_ptr<Ipc::CmdI> const copy = std::move(mailbox->copies.front());
      mailbox->copies.pop_front();
      lock.unlock();
      ++copiesSeen;
      auto* const testCfg = dynamic_cast<TestCfg*>(copy.get());
      std::string line;
      while (testCfg && testCfg->getRespLine(line)) taken.push_back(line);
      lock.lock();
    }
  });
  client->execute(cmd, [mailbox](std::shared_ptr<Ipc::CmdI> const&, std::string const& error) {
    std::lock_guard<std::mutex> lock(mailbox->mutex);
    mailbox->ended = true;
    mailbox->error = error;
    mailbox->changed.notify_all();
  });
  uiThread.join();
  ASSERT_FALSE(timedOut);
  EXPECT_EQ(mailbox->error, "");
  EXPECT_EQ(copiesSeen, expected.size());
  EXPECT_EQ(taken, expected);
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{""}));
}

// A user interface that leaves in the middle of the stream, as a raw socket
// that speaks the connection's byte layout.
TEST_F(TestCfgEndToEnd, ServiceStopsTheTestWhenTheClientLeavesMidStream) {
  state->addPlan(Plan{{{"+ one", "* two"}}, 1, true});
  RawSocket raw = RawSocket::connectTo(server->port());
  ASSERT_TRUE(raw.valid());
  std::string bytes;
  ASSERT_EQ(statusOk(), qxtest::proveToService(raw, token));
  ASSERT_TRUE(raw.send(testCfgRequest(R"({"AccountId":"acct-raw"})")));
  ASSERT_TRUE(raw.readExactly(8, bytes));
  ASSERT_EQ(bytes, statusOk());
  std::string line;
  ASSERT_TRUE(readRecord(raw, line));
  EXPECT_EQ(line, "+ one");
  ASSERT_TRUE(readRecord(raw, line));
  EXPECT_EQ(line, "* two");
  ASSERT_TRUE(state->waitFor([](ServiceState& s) { return s.blocked == 1; }));
  raw.close();
  EXPECT_EQ(state->destroyedCount(), 0);

  state->openLatch();
  ASSERT_TRUE(state->waitFor([](ServiceState& s) { return s.runnersDestroyed == 1; }))
      << "the service did not release the test";
  std::vector<std::string> const lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(kClientGoneLines.count(lines[0]), 1u) << lines[0];
  EXPECT_EQ(state->accounts(), (std::vector<std::string>{"acct-raw"}));

  expectServiceStillServes();
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(TestCfgEndToEnd, ServiceStopsTheTestWhenTheClientIsDestroyedMidStream) {
  state->addPlan(Plan{{{"+ one"}, {"* two"}}, 2, true});
  newClient();
  auto const ui = std::make_shared<UiRecorder>(false);
  auto const cmd = std::make_shared<TestCfg>(ui, settingsOf("acct-gone"));
  Completion done;
  client->execute(cmd, done.callback(ui));
  ASSERT_TRUE(ui->waitForCalls(2));
  ASSERT_TRUE(state->waitFor([](ServiceState& s) { return s.blocked == 1; }));
  client.reset();
  Outcome const outcome = done.get();
  EXPECT_EQ(outcome.error, "Ipc the client is closing");
  EXPECT_EQ(outcome.queue, (std::deque<std::string>{"+ one", "* two"}));
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{"+ one", "* two"}));
  EXPECT_EQ(ui->callCount(), 2u);

  state->openLatch();
  ASSERT_TRUE(state->waitFor([](ServiceState& s) { return s.runnersDestroyed == 1; }))
      << "the service did not release the test";
  std::vector<std::string> const lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(kClientGoneLines.count(lines[0]), 1u) << lines[0];

  expectServiceStillServes();
}

// A service that closes the connection in the middle of a line: the lines
// before it stay queued, without an end marker.
TEST_F(TestCfgEndToEnd, ClientKeepsReceivedLinesWhenTheServiceClosesMidLine) {
  std::uint16_t port = 0;
  RawSocket listener = RawSocket::listenLoopback(port);
  ASSERT_TRUE(listener.valid());
  std::promise<std::string> requestBody;
  std::thread fakeService([&] {
    RawSocket s = listener.accept();
    std::string frame, len, body;
    if (!s.valid() || !qxtest::answerHello(s, token).empty() ||
        !s.readExactly(8, frame) || !s.readExactly(4, len) ||
        !s.readExactly(Ipc::wire::getU32(reinterpret_cast<unsigned char const*>(len.data())), body)) {
      requestBody.set_value("(request not read)");
      return;
    }
    requestBody.set_value(frame.substr(0, 5) + body);
    // Two whole lines, then a third cut short: its length and 4 of its 10 bytes.
    s.send(statusOk() + record("+ one") + record("* two") + lengthRecord(10) + "- pa");
  });  // s closes here, after the whole request was read: an orderly end

  Ipc::CmdClientOptions options;
  options.port = port;
  client = std::make_unique<Ipc::CmdClient>(uiIo, options, token);
  auto const ui = std::make_shared<UiRecorder>(false);
  auto const cmd = std::make_shared<TestCfg>(ui, settingsOf("acct-cut"));
  Completion done;
  client->execute(cmd, done.callback(ui));
  Outcome const outcome = done.get();
  fakeService.join();

  std::string const why = "Ipc " + kTestCfgName + ": the service closed the connection";
  EXPECT_EQ(outcome.error, why);
  EXPECT_EQ(cmd->transferError(), why);
  EXPECT_EQ(outcome.queue, (std::deque<std::string>{"+ one", "* two"}));
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{"+ one", "* two"}));
  EXPECT_EQ(ui->callCount(), 2u);
  std::string const body = requestBody.get_future().get();
  EXPECT_EQ(body.substr(0, 5), std::string("QX\x02\x09\x01", 5));
  EXPECT_EQ(qxtest::parse(body.substr(5))["AccountId"].asStringSafe(), "acct-cut");
}

// ---------------------------------------------------------------------------
// A service process killed in the middle of the stream.

// The service of the child process: serves until killed; its test sends
// three lines, then waits at a latch that nobody opens. Reports its port
// through fd. Never returns.
[[noreturn]] void runChildService(int fd, Ipc::SecretToken const& token) {
  try {
    Ipc::IoThreads io;
    auto const state = std::make_shared<ServiceState>();
    state->addPlan(Plan{{{"+ one", "* two"}, {"- three"}}, 2, false});
    Ipc::CmdServerOptions options;
    options.forceIp4 = true;
    Ipc::CmdServer server(io, options, token, liteFactory("/nonexistent"),
                          std::make_shared<ServiceProcessor>(state));
    server.start();
    std::uint16_t const port = server.port();
    if (::write(fd, &port, sizeof port) != static_cast<ssize_t>(sizeof port)) ::_exit(3);
    ::close(fd);
    for (;;) ::pause();
  } catch (...) {
    ::_exit(2);
  }
}

TEST(TestCfgServiceProcess, ClientKeepsReceivedLinesWhenTheServiceDiesMidStream) {
  Ipc::SecretToken const token = Ipc::SecretToken::generate();
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  // Forked before this process starts any thread of its own.
  pid_t const pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::close(fds[0]);
    runChildService(fds[1], token);
  }
  qxtest::Child child(pid);  // killed and reaped when the test ends for any reason
  ::close(fds[1]);
  std::uint16_t port = 0;
  ssize_t const got = ::read(fds[0], &port, sizeof port);
  ::close(fds[0]);
  ASSERT_EQ(got, static_cast<ssize_t>(sizeof port)) << "the service process did not start";

  Ipc::IoThreads io;
  Ipc::CmdClientOptions options;
  options.port = port;
  Ipc::CmdClient client(io, options, token);
  auto const ui = std::make_shared<UiRecorder>(false);
  auto const cmd = std::make_shared<TestCfg>(ui, settingsOf("acct-killed"));
  Completion done;
  client.execute(cmd, done.callback(ui));
  ASSERT_TRUE(ui->waitForCalls(3));
  int const status = child.kill();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;

  Outcome const outcome = done.get();
  std::string const why = "Ipc " + kTestCfgName + ": the service closed the connection";
  EXPECT_EQ(outcome.error, why);
  EXPECT_EQ(cmd->transferError(), why);
  EXPECT_EQ(outcome.queue, (std::deque<std::string>{"+ one", "* two", "- three"}));
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{"+ one", "* two", "- three"}));
  EXPECT_EQ(ui->callCount(), 3u);
}

}  // namespace
