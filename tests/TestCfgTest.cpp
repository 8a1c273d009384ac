// Ipc::TestCfg without a network: the command runs against a channel that
// records every operation with its bytes and completes it when the test says
// so, the way the transport does (one operation at a time, the next started
// from the completion of the previous one).
#include "ipc/IpcCmdsLite.h"
#include "ipc/MsgsUItoSvc.h"
#include "json/Json.h"
#include "settings/Settings.h"
#include "tests/FakeChannel.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace {

using Ipc::TestCfg;
using qxtest::FakeChannel;

// The 8-byte length record of a line: host byte order, little-endian here.
std::string lengthRecord(std::uint64_t n) {
  std::string out(8, '\0');
  for (int i = 0; i < 8; ++i) out[i] = static_cast<char>((n >> (8 * i)) & 0xff);
  return out;
}

std::string const kEndRecord(8, '\0');

std::deque<std::string> queueOf(TestCfg const& cmd) { return cmd.respMsgs()->lines; }

// A test of the service whose steps are scripted: each step appends its lines
// to the command's queue; after the last step runStep returns false. Records
// what the channel had written when each step began.
struct RunnerLog {
  int steps = 0;
  std::vector<std::size_t> writesAtStep;  // channel writes seen when step i began
  bool destroyed = false;
};

class ScriptRunner : public TestCfg::TestRunnerI {
 public:
  ScriptRunner(TestCfg& cmd, FakeChannel const* channel, std::vector<std::vector<std::string>> script,
               std::shared_ptr<RunnerLog> log)
      : m_cmd(cmd), m_channel(channel), m_script(std::move(script)), m_log(std::move(log)) {}
  ~ScriptRunner() override { m_log->destroyed = true; }

  bool runStep() override {
    m_log->writesAtStep.push_back(m_channel ? m_channel->writes().size() : 0);
    std::size_t const step = static_cast<std::size_t>(m_log->steps++);
    if (step >= m_script.size()) return false;
    for (std::string const& line : m_script[step]) m_cmd.respMsgs()->lines.push_back(line);
    return true;
  }

 private:
  TestCfg& m_cmd;
  FakeChannel const* m_channel;
  std::vector<std::vector<std::string>> m_script;
  std::shared_ptr<RunnerLog> m_log;
};

// The user interface's processor: records what each command announced with
// processCmd was, and the lines that getRespLine gave on it right then. It
// keeps no reference to the command (which holds this processor).
class UiProcessor : public Ipc::CmdProcessorI {
 public:
  struct Call {
    TestCfg const* cmd = nullptr;  // null when the command was no TestCfg
    TestCfg::SharedRespMsgs const* queue = nullptr;
    Ipc::CmdProcessorI const* processor = nullptr;
    bool hasRunner = false;
    std::size_t payloadSize = 0;
    Ipc::CmdI::TypeCode type = 0;
    std::vector<std::string> linesTaken;
  };

  void processCmd(std::shared_ptr<Ipc::CmdI> cmd) override {
    Call call;
    if (auto* t = dynamic_cast<TestCfg*>(cmd.get())) {
      call.cmd = t;
      call.queue = t->respMsgs().get();
      call.processor = t->processor().get();
      call.hasRunner = t->runner != nullptr;
      call.payloadSize = t->payload.size();
      call.type = t->typeCode();
      std::string line;
      while (takeLines && t->getRespLine(line)) call.linesTaken.push_back(line);
    }
    calls.push_back(std::move(call));
  }

  bool takeLines = true;
  std::vector<Call> calls;
};

class VisitRecorder : public Ipc::CmdProcessorLiteI {
 public:
  void visit(Ipc::TestCfg& c) override { visited = &c; }
  TestCfg* visited = nullptr;
};

Settings settingsOf(std::string const& account) {
  return Settings(qxtest::parse(R"({"AccountId":")" + account + R"(","SpoolerId":42,"KeyId":7})"));
}

// ---------------------------------------------------------------------------
// Prefixes of the result lines.

TEST(TestCfgLinePrefixes, AreTheFourExactTexts) {
  EXPECT_EQ(Ipc::TST_LINE_START_ERR, "- ");
  EXPECT_EQ(Ipc::TST_LINE_START_WARN, "* ");
  EXPECT_EQ(Ipc::TST_LINE_START_PASS, "+ ");
  EXPECT_EQ(Ipc::TST_LINE_START_DESCR, "    -> ");
  EXPECT_EQ(Ipc::TST_LINE_START_DESCR.size(), 7u);
}

// ---------------------------------------------------------------------------
// The frame: name, time-out, type code, constructors, bodies.

TEST(TestCfgFrame, NameIsTestConfigurationInDoubleQuotes) {
  TestCfg cmd(nullptr);
  EXPECT_STREQ(cmd.name(), "\"Test Configuration\"");
}

TEST(TestCfgFrame, WaitsWithTheLongTimeoutIdentifierThree) {
  TestCfg cmd(nullptr);
  EXPECT_EQ(cmd.reqTimeoutId(), 3);
  EXPECT_EQ(cmd.reqTimeoutId(), Ipc::CmdI::TIMEOUT_LONG);
}

TEST(TestCfgFrame, EveryConstructorGivesTypeCodeNine) {
  auto const processor = std::make_shared<UiProcessor>();
  TestCfg fromSettings(processor, settingsOf("acct-1"));
  TestCfg receiving(processor);
  TestCfg copy(fromSettings);
  EXPECT_EQ(fromSettings.typeCode(), 9);
  EXPECT_EQ(receiving.typeCode(), 9);
  EXPECT_EQ(copy.typeCode(), 9);
  EXPECT_EQ(Ipc::TEST_CFG_TYPE, 9);
}

TEST(TestCfgFrame, FactoryBuildsATestCfgForTypeCodeNine) {
  auto const processor = std::make_shared<UiProcessor>();
  std::shared_ptr<Ipc::CmdLiteBase> const cmd = Ipc::createLiteCmd(9, processor, "/nonexistent");
  ASSERT_NE(cmd, nullptr);
  auto const* testCfg = dynamic_cast<TestCfg*>(cmd.get());
  ASSERT_NE(testCfg, nullptr);
  EXPECT_EQ(testCfg->processor(), processor);
  EXPECT_EQ(testCfg->payload.size(), 0u);
  EXPECT_EQ(testCfg->runner, nullptr);
  EXPECT_TRUE(queueOf(*testCfg).empty());
}

TEST(TestCfgFrame, SettingsConstructorMakesThePayloadTheRecordsJsonForm) {
  auto const processor = std::make_shared<UiProcessor>();
  Settings const settings = settingsOf("acct-settings");
  TestCfg cmd(processor, settings);
  EXPECT_TRUE(cmd.payload == settings.serialize())
      << json::jsonToString(cmd.payload, true) << " vs "
      << json::jsonToString(settings.serialize(), true);
  EXPECT_EQ(cmd.payload["AccountId"].asStringSafe(), "acct-settings");
  EXPECT_EQ(cmd.processor(), processor);
  EXPECT_EQ(cmd.runner, nullptr);
  ASSERT_NE(cmd.respMsgs(), nullptr);
  EXPECT_TRUE(queueOf(cmd).empty());
  EXPECT_EQ(cmd.channel(), nullptr);
}

TEST(TestCfgFrame, ReceivingConstructorStartsWithAnEmptyPayloadAndItsOwnQueue) {
  auto const processor = std::make_shared<UiProcessor>();
  TestCfg a(processor);
  TestCfg b(processor);
  EXPECT_TRUE(a.payload.isObject());
  EXPECT_EQ(a.payload.size(), 0u);
  EXPECT_NE(a.payload.get(), b.payload.get());
  EXPECT_EQ(a.processor(), processor);
  EXPECT_EQ(a.runner, nullptr);
  ASSERT_NE(a.respMsgs(), nullptr);
  ASSERT_NE(b.respMsgs(), nullptr);
  EXPECT_NE(a.respMsgs(), b.respMsgs());
  EXPECT_TRUE(queueOf(a).empty());
}

TEST(TestCfgFrame, CopySharesTheQueueButHasAnEmptyPayloadAndNoRunner) {
  auto const processor = std::make_shared<UiProcessor>();
  TestCfg original(processor, settingsOf("acct-copy"));
  auto const log = std::make_shared<RunnerLog>();
  original.runner = std::make_unique<ScriptRunner>(original, nullptr,
                                                   std::vector<std::vector<std::string>>{}, log);
  original.lockAndAddToLines("+ before the copy");
  long const usesBefore = original.respMsgs().use_count();

  TestCfg copy(original);
  EXPECT_EQ(copy.respMsgs(), original.respMsgs());
  EXPECT_EQ(original.respMsgs().use_count(), usesBefore + 1);
  EXPECT_EQ(copy.processor(), processor);
  EXPECT_EQ(copy.runner, nullptr);
  EXPECT_NE(original.runner, nullptr);
  EXPECT_TRUE(copy.payload.isObject());
  EXPECT_EQ(copy.payload.size(), 0u);
  EXPECT_NE(copy.payload.get(), original.payload.get());
  EXPECT_EQ(original.payload["AccountId"].asStringSafe(), "acct-copy");
  EXPECT_EQ(queueOf(copy), (std::deque<std::string>{"+ before the copy"}));
  EXPECT_FALSE(log->destroyed);
}

TEST(TestCfgFrame, CopysSerializeReqIsAnEmptyObject) {
  TestCfg original(nullptr, settingsOf("acct-req"));
  ASSERT_NE(original.serializeReq().size(), 0u);
  TestCfg const copy(original);
  json::Object const req = copy.serializeReq();
  EXPECT_TRUE(req.isObject());
  EXPECT_EQ(req.size(), 0u);
  EXPECT_EQ(json::jsonToString(req, false), "{}");
}

TEST(TestCfgFrame, QueueOutlivesTheCommandWhileACopyHoldsIt) {
  auto original = std::make_unique<TestCfg>(nullptr);
  original->lockAndAddToLines("+ kept");
  TestCfg copy(*original);
  std::weak_ptr<TestCfg::SharedRespMsgs> const queue = original->respMsgs();
  original.reset();
  ASSERT_FALSE(queue.expired());
  std::string line;
  EXPECT_TRUE(copy.getRespLine(line));
  EXPECT_EQ(line, "+ kept");
}

TEST(TestCfgFrame, RunnerIsDeletedWithTheCommand) {
  auto const log = std::make_shared<RunnerLog>();
  auto cmd = std::make_shared<TestCfg>(nullptr);
  cmd->runner = std::make_unique<ScriptRunner>(*cmd, nullptr,
                                               std::vector<std::vector<std::string>>{}, log);
  EXPECT_FALSE(log->destroyed);
  cmd.reset();
  EXPECT_TRUE(log->destroyed);
}

TEST(TestCfgFrame, PSettsBuildsANewRecordFromThePayloadEachTime) {
  Settings const settings = settingsOf("acct-psetts");
  TestCfg cmd(nullptr, settings);
  std::string const payloadBefore = json::jsonToString(cmd.payload, true);
  std::unique_ptr<Settings> const first = cmd.pSetts();
  std::unique_ptr<Settings> const second = cmd.pSetts();
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first.get(), second.get());
  EXPECT_TRUE(*first == settings);
  EXPECT_EQ(first->AccountId, "acct-psetts");
  EXPECT_EQ(first->SpoolerId, 42);
  EXPECT_EQ(first->KeyId, 7);
  EXPECT_EQ(json::jsonToString(cmd.payload, true), payloadBefore);
}

TEST(TestCfgFrame, PSettsReadsTheReceivedPayload) {
  TestCfg cmd(nullptr);
  cmd.deserializeReq(qxtest::parse(R"({"AccountId":"acct-received","SpoolerId":5})"));
  std::unique_ptr<Settings> const settings = cmd.pSetts();
  EXPECT_EQ(settings->AccountId, "acct-received");
  EXPECT_EQ(settings->SpoolerId, 5);
}

TEST(TestCfgFrame, SerializeReqSharesThePayload) {
  TestCfg cmd(nullptr, settingsOf("acct-share"));
  json::Object const req = cmd.serializeReq();
  EXPECT_EQ(req.get(), cmd.payload.get());
}

TEST(TestCfgFrame, DeserializeReqTakesTheReceivedObjectWithoutCopying) {
  TestCfg cmd(nullptr);
  json::Object const received = qxtest::parse(R"({"AccountId":"acct-in"})");
  cmd.deserializeReq(received);
  EXPECT_EQ(cmd.payload.get(), received.get());
  EXPECT_EQ(cmd.serializeReq().get(), received.get());
}

TEST(TestCfgFrame, SerializeRespIsANewEmptyObject) {
  TestCfg cmd(nullptr, settingsOf("acct-resp"));
  cmd.lockAndAddToLines("+ a line");
  json::Object const resp = cmd.serializeResp();
  EXPECT_TRUE(resp.isObject());
  EXPECT_EQ(resp.size(), 0u);
  EXPECT_NE(resp.get(), cmd.payload.get());
  EXPECT_NE(cmd.serializeResp().get(), resp.get());
}

TEST(TestCfgFrame, DeserializeRespChangesNothing) {
  TestCfg cmd(nullptr, settingsOf("acct-keep"));
  cmd.lockAndAddToLines("+ a line");
  json_t* const payloadNode = cmd.payload.get();
  std::string const payloadText = json::jsonToString(cmd.payload, true);
  FakeChannel channel;
  cmd.setChannel(&channel);
  cmd.deserializeResp(qxtest::parse(R"({"resp":true,"AccountId":"other","lines":["- x"]})"));
  EXPECT_EQ(cmd.payload.get(), payloadNode);
  EXPECT_EQ(json::jsonToString(cmd.payload, true), payloadText);
  EXPECT_EQ(queueOf(cmd), (std::deque<std::string>{"+ a line"}));
  EXPECT_TRUE(channel.ops.empty());
  EXPECT_EQ(channel.finishes, 0);
}

TEST(TestCfgFrame, AcceptDispatchesToTheVisitForTestCfg) {
  VisitRecorder processor;
  TestCfg cmd(nullptr);
  Ipc::CmdProcessorI& plain = processor;
  Ipc::CmdI& frame = cmd;
  frame.accept(plain);
  EXPECT_EQ(processor.visited, &cmd);
}

// ---------------------------------------------------------------------------
// The queue of result lines.

TEST(TestCfgQueue, GetRespLineOnAnEmptyQueueReturnsFalseAndLeavesOutAlone) {
  TestCfg cmd(nullptr);
  std::string out = "untouched";
  EXPECT_FALSE(cmd.getRespLine(out));
  EXPECT_EQ(out, "untouched");
  EXPECT_TRUE(queueOf(cmd).empty());
}

TEST(TestCfgQueue, GetRespLineTakesTheOldestLineFirst) {
  TestCfg cmd(nullptr);
  cmd.lockAndAddToLines("+ first");
  cmd.lockAndAddToLines("- second");
  cmd.lockAndAddToLines("    -> third");
  std::string out;
  ASSERT_TRUE(cmd.getRespLine(out));
  EXPECT_EQ(out, "+ first");
  EXPECT_EQ(queueOf(cmd), (std::deque<std::string>{"- second", "    -> third"}));
  ASSERT_TRUE(cmd.getRespLine(out));
  EXPECT_EQ(out, "- second");
  ASSERT_TRUE(cmd.getRespLine(out));
  EXPECT_EQ(out, "    -> third");
  EXPECT_FALSE(cmd.getRespLine(out));
  EXPECT_EQ(out, "    -> third");
  EXPECT_TRUE(queueOf(cmd).empty());
}

TEST(TestCfgQueue, GetRespLineOnOnlyTheEndMarkerKeepsReturningFalse) {
  TestCfg cmd(nullptr);
  cmd.lockAndAddToLines(std::string());
  std::string out = "untouched";
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(cmd.getRespLine(out)) << "call " << i;
    EXPECT_EQ(out, "untouched");
    EXPECT_EQ(queueOf(cmd), (std::deque<std::string>{""}));
  }
}

TEST(TestCfgQueue, EndMarkerIsNeverRemovedAfterTheLinesBeforeIt) {
  TestCfg cmd(nullptr);
  cmd.lockAndAddToLines("+ one");
  cmd.lockAndAddToLines("* two");
  cmd.lockAndAddToLines(std::string());
  std::string out;
  ASSERT_TRUE(cmd.getRespLine(out));
  EXPECT_EQ(out, "+ one");
  ASSERT_TRUE(cmd.getRespLine(out));
  EXPECT_EQ(out, "* two");
  EXPECT_FALSE(cmd.getRespLine(out));
  EXPECT_FALSE(cmd.getRespLine(out));
  EXPECT_EQ(out, "* two");
  EXPECT_EQ(queueOf(cmd), (std::deque<std::string>{""}));
}

TEST(TestCfgQueue, LockAndAddToLinesMovesTheLineIn) {
  TestCfg cmd(nullptr);
  std::string line(100, 'x');
  line.replace(0, 2, Ipc::TST_LINE_START_PASS);
  char const* const storage = line.data();
  cmd.lockAndAddToLines(std::move(line));
  ASSERT_EQ(cmd.respMsgs()->lines.size(), 1u);
  EXPECT_EQ(cmd.respMsgs()->lines.front().data(), storage);
  EXPECT_EQ(cmd.respMsgs()->lines.front().size(), 100u);
}

TEST(TestCfgQueue, CopySeesLinesAddedThroughTheOriginalAndTakesThemForBoth) {
  TestCfg original(nullptr);
  TestCfg copy(original);
  original.lockAndAddToLines("+ from the original");
  original.lockAndAddToLines("* also from it");
  std::string out;
  ASSERT_TRUE(copy.getRespLine(out));
  EXPECT_EQ(out, "+ from the original");
  EXPECT_EQ(queueOf(original), (std::deque<std::string>{"* also from it"}));
  ASSERT_TRUE(original.getRespLine(out));
  EXPECT_EQ(out, "* also from it");
  EXPECT_FALSE(copy.getRespLine(out));
  EXPECT_TRUE(queueOf(copy).empty());
}

// ---------------------------------------------------------------------------
// Service side: the stream of lines written while the test runs.

class TestCfgService : public ::testing::Test {
 protected:
  TestCfgService() : cmd(std::make_shared<TestCfg>(nullptr)) { cmd->setChannel(&channel); }

  void install(std::vector<std::vector<std::string>> script) {
    cmd->runner = std::make_unique<ScriptRunner>(*cmd, &channel, std::move(script), log);
  }

  FakeChannel channel;
  std::shared_ptr<RunnerLog> log = std::make_shared<RunnerLog>();
  std::shared_ptr<TestCfg> cmd;
};

TEST_F(TestCfgService, FirstStepThatFinishesSendsOnlyEightZeroBytes) {
  install({});
  cmd->sendResp();
  channel.completeAll();
  EXPECT_EQ(channel.writes(), (std::vector<std::string>{kEndRecord}));
  EXPECT_EQ(channel.writes().front(), std::string("\0\0\0\0\0\0\0\0", 8));
  EXPECT_TRUE(channel.readLengths().empty());
  EXPECT_EQ(log->steps, 1);
  EXPECT_EQ(channel.finishes, 1);
  EXPECT_EQ(channel.finishedCmd, cmd.get());
  EXPECT_FALSE(channel.pending());
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{""}));
  EXPECT_EQ(channel.overlaps, 0);
}

TEST_F(TestCfgService, WithoutARunnerTheTestFinishesAtOnce) {
  cmd->sendResp();
  channel.completeAll();
  EXPECT_EQ(channel.writes(), (std::vector<std::string>{kEndRecord}));
  EXPECT_EQ(channel.finishes, 1);
  EXPECT_EQ(channel.finishedCmd, cmd.get());
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{""}));
}

TEST_F(TestCfgService, ThreeLinesOfOneStepAreSentInOrderBeforeTheNextStep) {
  std::string const longLine = Ipc::TST_LINE_START_DESCR + std::string(293, 'd');  // 300 bytes
  install({{"+ one", "- two!", longLine}});
  cmd->sendResp();
  channel.completeAll();

  std::vector<std::string> const expected{
      lengthRecord(5),   "+ one",  lengthRecord(6), "- two!",
      lengthRecord(300), longLine, kEndRecord};
  EXPECT_EQ(channel.writes(), expected);
  EXPECT_EQ(lengthRecord(300), std::string("\x2c\x01\0\0\0\0\0\0", 8));
  ASSERT_EQ(log->steps, 2);
  // The second step began only once all three lines were written.
  EXPECT_EQ(log->writesAtStep, (std::vector<std::size_t>{0, 6}));
  EXPECT_EQ(channel.finishes, 1);
  EXPECT_EQ(channel.overlaps, 0);
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{""}));
}

TEST_F(TestCfgService, StepsWithoutLinesAreRunAgainUntilALineIsQueued) {
  install({{}, {}, {"+ after two empty steps"}, {}, {"* last"}});
  cmd->sendResp();
  // The first three steps ran at once; the line's length is being written.
  EXPECT_EQ(log->steps, 3);
  ASSERT_TRUE(channel.pending());
  EXPECT_EQ(channel.pendingOp().bytes, lengthRecord(23));
  channel.completeAll();
  EXPECT_EQ(channel.writes(),
            (std::vector<std::string>{lengthRecord(23), "+ after two empty steps", lengthRecord(6),
                                      "* last", kEndRecord}));
  EXPECT_EQ(log->steps, 6);
  EXPECT_EQ(log->writesAtStep, (std::vector<std::size_t>{0, 0, 0, 2, 2, 4}));
  EXPECT_EQ(channel.finishes, 1);
  EXPECT_EQ(channel.overlaps, 0);
}

TEST_F(TestCfgService, ALineIsWrittenFromTheQueueAndRemovedOnlyAfterItsText) {
  install({{"+ queued"}});
  cmd->sendResp();
  ASSERT_TRUE(channel.complete());  // the length
  ASSERT_TRUE(channel.pending());
  FakeChannel::Op const text = channel.pendingOp();
  EXPECT_EQ(text.bytes, "+ queued");
  ASSERT_EQ(cmd->respMsgs()->lines.size(), 1u);
  // Written straight from the queued string, which stays queued meanwhile.
  EXPECT_EQ(text.data, cmd->respMsgs()->lines.front().data());
  EXPECT_EQ(log->steps, 1);
  ASSERT_TRUE(channel.complete());  // the text: the line goes, the next step runs
  EXPECT_EQ(log->steps, 2);
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{""}));
  channel.completeAll();
  EXPECT_EQ(channel.finishes, 1);
}

TEST_F(TestCfgService, AnEmptyResultLineEndsTheStream) {
  install({{"+ sent", "", "+ never sent"}, {"+ never produced"}});
  cmd->sendResp();
  channel.completeAll();
  EXPECT_EQ(channel.writes(), (std::vector<std::string>{lengthRecord(6), "+ sent", kEndRecord}));
  EXPECT_EQ(channel.finishes, 1);
  EXPECT_EQ(channel.finishedCmd, cmd.get());
  EXPECT_EQ(log->steps, 1);
  EXPECT_FALSE(channel.pending());
  // The empty line stays at the front, like the end marker.
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{"", "+ never sent"}));
}

TEST_F(TestCfgService, EveryOperationHoldsTheCommandItself) {
  install({{"+ a"}});
  cmd->sendResp();
  channel.completeAll();
  ASSERT_EQ(channel.ops.size(), 3u);
  for (FakeChannel::Op const& op : channel.ops) EXPECT_EQ(op.cmd, cmd.get());
}

TEST_F(TestCfgService, PendingWritesKeepTheCommandAndItsRunnerAlive) {
  install({{"+ a"}});
  cmd->sendResp();
  std::weak_ptr<TestCfg> const weak = cmd;
  cmd.reset();
  ASSERT_FALSE(weak.expired());
  channel.completeAll();
  EXPECT_EQ(channel.writes(), (std::vector<std::string>{lengthRecord(3), "+ a", kEndRecord}));
  EXPECT_EQ(channel.finishes, 1);
  EXPECT_TRUE(weak.expired());
  EXPECT_TRUE(log->destroyed);
}

TEST(TestCfgOwnership, StartingATransferOnACommandNoSharedPtrOwnsThrowsBadWeakPtr) {
  FakeChannel channel;
  TestCfg service(nullptr);
  service.setChannel(&channel);
  EXPECT_THROW(service.sendResp(), std::bad_weak_ptr);
  TestCfg ui(nullptr);
  ui.setChannel(&channel);
  EXPECT_THROW(ui.readResp(), std::bad_weak_ptr);
  EXPECT_TRUE(channel.ops.empty());
}

// ---------------------------------------------------------------------------
// User-interface side: reading the stream.

class TestCfgUi : public ::testing::Test {
 protected:
  TestCfgUi() : cmd(std::make_shared<TestCfg>(processor, settingsOf("acct-ui"))) {
    cmd->setChannel(&channel);
  }

  static std::string record(std::string const& line) { return lengthRecord(line.size()) + line; }

  FakeChannel channel;
  std::shared_ptr<UiProcessor> processor = std::make_shared<UiProcessor>();
  std::shared_ptr<TestCfg> cmd;
};

TEST_F(TestCfgUi, ReadsALengthThenExactlyThatManyBytes) {
  processor->takeLines = false;
  cmd->readResp();
  ASSERT_TRUE(channel.pending());
  EXPECT_EQ(channel.pendingOp().kind, FakeChannel::Kind::Read);
  EXPECT_EQ(channel.pendingOp().len, 8u);
  EXPECT_EQ(channel.pendingOp().cmd, cmd.get());
  channel.feed(lengthRecord(300));
  ASSERT_TRUE(channel.complete());
  ASSERT_TRUE(channel.pending());
  EXPECT_EQ(channel.pendingOp().len, 300u);
  EXPECT_TRUE(queueOf(*cmd).empty());
  std::string const text = "* " + std::string(298, 'w');
  channel.feed(text);
  ASSERT_TRUE(channel.complete());
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{text}));
  ASSERT_TRUE(channel.pending());
  EXPECT_EQ(channel.pendingOp().len, 8u);
  EXPECT_EQ(channel.readLengths(), (std::vector<std::size_t>{8, 300, 8}));
  EXPECT_TRUE(channel.writes().empty());
  EXPECT_EQ(channel.finishes, 0);
  EXPECT_EQ(channel.overlaps, 0);
}

TEST_F(TestCfgUi, EachLineIsAnnouncedOnceWithACopyThatSeesIt) {
  cmd->readResp();
  channel.feed(record("+ one") + record("- two") + record("    -> three"));
  channel.completeAll();
  ASSERT_EQ(processor->calls.size(), 3u);
  std::vector<std::vector<std::string>> const expected{{"+ one"}, {"- two"}, {"    -> three"}};
  for (std::size_t i = 0; i < processor->calls.size(); ++i) {
    UiProcessor::Call const& call = processor->calls[i];
    ASSERT_NE(call.cmd, nullptr) << "call " << i;
    EXPECT_NE(call.cmd, cmd.get()) << "call " << i;
    EXPECT_EQ(call.queue, cmd->respMsgs().get()) << "call " << i;
    EXPECT_EQ(call.processor, processor.get()) << "call " << i;
    EXPECT_FALSE(call.hasRunner) << "call " << i;
    EXPECT_EQ(call.payloadSize, 0u) << "call " << i;
    EXPECT_EQ(call.type, 9) << "call " << i;
    EXPECT_EQ(call.linesTaken, expected[i]) << "call " << i;
  }
  EXPECT_TRUE(queueOf(*cmd).empty());
  EXPECT_EQ(channel.finishes, 0);  // no end record yet
  EXPECT_TRUE(channel.pending());
}

TEST_F(TestCfgUi, EndRecordQueuesTheEndMarkerAndFinishesWithoutAnnouncingIt) {
  processor->takeLines = false;
  cmd->readResp();
  channel.feed(record("+ one") + record("* two") + kEndRecord);
  channel.completeAll();
  EXPECT_EQ(processor->calls.size(), 2u);
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{"+ one", "* two", ""}));
  EXPECT_EQ(channel.finishes, 1);
  EXPECT_EQ(channel.finishedCmd, cmd.get());
  EXPECT_FALSE(channel.pending());
  EXPECT_EQ(channel.readLengths(), (std::vector<std::size_t>{8, 5, 8, 5, 8}));
  std::string out;
  ASSERT_TRUE(cmd->getRespLine(out));
  EXPECT_EQ(out, "+ one");
  ASSERT_TRUE(cmd->getRespLine(out));
  EXPECT_EQ(out, "* two");
  EXPECT_FALSE(cmd->getRespLine(out));
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{""}));
}

TEST_F(TestCfgUi, ImmediateEndRecordFinishesWithOnlyTheEndMarker) {
  cmd->readResp();
  channel.feed(kEndRecord);
  channel.completeAll();
  EXPECT_TRUE(processor->calls.empty());
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{""}));
  EXPECT_EQ(channel.finishes, 1);
  EXPECT_EQ(channel.readLengths(), (std::vector<std::size_t>{8}));
}

TEST_F(TestCfgUi, AZeroLengthRecordEndsTheStreamEvenWhenMoreBytesFollow) {
  cmd->readResp();
  channel.feed(kEndRecord + record("+ after the end"));
  channel.completeAll();
  EXPECT_EQ(channel.inputConsumed(), 8u);
  EXPECT_TRUE(processor->calls.empty());
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{""}));
  EXPECT_EQ(channel.finishes, 1);
  EXPECT_FALSE(channel.pending());
}

TEST_F(TestCfgUi, LinesArriveOneRecordAtATime) {
  processor->takeLines = false;
  cmd->readResp();
  std::string const all = record("+ one") + record("* two");
  // Byte by byte: nothing is queued or announced before a line is whole.
  for (std::size_t i = 0; i + 1 < 13; ++i) {
    channel.feed(all.substr(i, 1));
    channel.completeAll();
    EXPECT_TRUE(queueOf(*cmd).empty()) << "after byte " << i;
  }
  channel.feed(all.substr(12, 1));
  channel.completeAll();
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{"+ one"}));
  EXPECT_EQ(processor->calls.size(), 1u);
  channel.feed(all.substr(13));
  channel.completeAll();
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{"+ one", "* two"}));
  EXPECT_EQ(processor->calls.size(), 2u);
}

TEST_F(TestCfgUi, TransferErrorStopsTheQueueWithoutAnEndMarker) {
  processor->takeLines = false;
  cmd->readResp();
  channel.feed(record("+ one") + lengthRecord(10) + "- par");
  channel.completeAll();
  ASSERT_TRUE(channel.pending());  // waiting for the rest of the second line
  std::string const why = "Ipc \"Test Configuration\": the service closed the connection";
  cmd->onTransferError(why);
  EXPECT_EQ(cmd->transferError(), why);
  EXPECT_EQ(channel.failures, (std::vector<std::string>{why}));
  EXPECT_EQ(channel.failedCmd, cmd.get());
  EXPECT_EQ(channel.finishes, 0);
  EXPECT_EQ(queueOf(*cmd), (std::deque<std::string>{"+ one"}));
  EXPECT_EQ(processor->calls.size(), 1u);
}

// Both sides together: what one writes, the other reads back as the same lines.
TEST(TestCfgRoundTrip, LinesWrittenByTheServiceAreReadBackInOrder) {
  FakeChannel serviceChannel;
  auto const service = std::make_shared<TestCfg>(nullptr);
  service->setChannel(&serviceChannel);
  auto const log = std::make_shared<RunnerLog>();
  std::vector<std::vector<std::string>> const script{
      {Ipc::TST_LINE_START_PASS + "server reachable"},
      {},
      {Ipc::TST_LINE_START_ERR + "login refused", Ipc::TST_LINE_START_DESCR + "wrong key",
       Ipc::TST_LINE_START_WARN + "no e-mail"}};
  service->runner = std::make_unique<ScriptRunner>(*service, &serviceChannel, script, log);
  service->sendResp();
  serviceChannel.completeAll();
  std::string wire;
  for (std::string const& w : serviceChannel.writes()) wire += w;

  FakeChannel uiChannel;
  auto const processor = std::make_shared<UiProcessor>();
  auto const ui = std::make_shared<TestCfg>(processor, settingsOf("acct-rt"));
  ui->setChannel(&uiChannel);
  ui->readResp();
  uiChannel.feed(wire);
  uiChannel.completeAll();
  EXPECT_EQ(uiChannel.inputConsumed(), wire.size());
  EXPECT_EQ(uiChannel.finishes, 1);
  std::vector<std::string> taken;
  for (UiProcessor::Call const& call : processor->calls) {
    ASSERT_EQ(call.linesTaken.size(), 1u);
    taken.push_back(call.linesTaken.front());
  }
  EXPECT_EQ(taken, (std::vector<std::string>{"+ server reachable", "- login refused",
                                             "    -> wrong key", "* no e-mail"}));
  EXPECT_EQ(queueOf(*ui), (std::deque<std::string>{""}));
}

}  // namespace
