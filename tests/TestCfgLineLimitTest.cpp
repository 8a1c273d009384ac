// The one limit of a TestCfg result line, kept by both sides over the real
// transport: the service cuts a longer line to the limit with the marker,
// the user interface receives it and the lines after it, and the test ends
// normally.
#include "ipc/IpcCmdsLite.h"
#include "settings/Settings.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using Ipc::TestCfg;

constexpr std::size_t kLimit = TestCfg::MAX_RESP_LINE;
std::size_t const kMarkerSize = std::strlen(TestCfg::CUT_MARKER);

// Yields the lines given, one step each, then ends.
class LinesRunner : public TestCfg::TestRunnerI {
 public:
  LinesRunner(TestCfg& cmd, std::vector<std::string> lines) : m_cmd(cmd), m_lines(std::move(lines)) {}
  bool runStep() override {
    if (m_next == m_lines.size()) return false;
    m_cmd.respMsgs()->lines.push_back(m_lines[m_next++]);
    return true;
  }

 private:
  TestCfg& m_cmd;
  std::vector<std::string> const m_lines;
  std::size_t m_next = 0;
};

class LinesService : public Ipc::CmdProcessorLiteI {
 public:
  explicit LinesService(std::vector<std::string> lines) : m_lines(std::move(lines)) {}
  void visit(TestCfg& cmd) override { cmd.runner = std::make_unique<LinesRunner>(cmd, m_lines); }

 private:
  std::vector<std::string> const m_lines;
};

// Runs one TestCfg against a service whose test yields lines; returns what
// the user interface's queue holds at the end (the end marker last).
std::deque<std::string> receivedLines(std::vector<std::string> lines) {
  qxtest::TempDir spool;
  Ipc::SecretToken const token = Ipc::SecretToken::generate();
  Ipc::IoThreads svcIo;
  Ipc::IoThreads uiIo;
  auto const service = std::make_shared<LinesService>(std::move(lines));
  Ipc::CmdServerOptions options;
  options.port = 0;
  options.forceIp4 = true;
  boost::filesystem::path const folder = spool.path();
  Ipc::CmdServer server(
      svcIo, options, token,
      [folder](Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p) {
        return std::shared_ptr<Ipc::CmdI>(Ipc::createLiteCmd(type, p, folder));
      },
      service);
  server.start();
  Ipc::CmdClientOptions clientOptions;
  clientOptions.port = server.port();
  std::deque<std::string> received;
  {
    Ipc::CmdClient client(uiIo, clientOptions, token);
    auto const cmd = std::make_shared<TestCfg>(nullptr, Settings(json::Object()));
    EXPECT_EQ("", client.run(cmd));
    boost::lock_guard<boost::mutex> lock(cmd->respMsgs()->mutex);
    received = cmd->respMsgs()->lines;
  }
  server.stop();
  return received;
}

// Compares without printing 16 MiB on a failure.
void expectLine(std::string const& expected, std::string const& actual, char const* what) {
  EXPECT_EQ(expected.size(), actual.size()) << what;
  if (expected == actual) return;
  std::size_t const at = static_cast<std::size_t>(std::distance(
      expected.begin(), std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end()).first));
  ADD_FAILURE() << what << ": first difference at byte " << at << ": expected \""
                << expected.substr(at < 8 ? 0 : at - 8, 24) << "\", received \""
                << actual.substr(at < 8 ? 0 : at - 8, 24) << "\"";
}

TEST(TestCfgLineLimit, ALongerLineArrivesCutWithTheMarkerAndTheTestGoesOn) {
  std::string const longLine = "- " + std::string(kLimit, 'x');
  std::deque<std::string> const received = receivedLines({"+ first", longLine, "+ next"});
  ASSERT_EQ(4u, received.size());
  EXPECT_EQ("+ first", received[0]);
  std::string const cut = longLine.substr(0, kLimit - kMarkerSize) + " [cut]";
  ASSERT_EQ(kLimit, cut.size());
  expectLine(cut, received[1], "the cut line");
  EXPECT_EQ("+ next", received[2]);
  EXPECT_EQ("", received[3]);
}

TEST(TestCfgLineLimit, ALineOfExactlyTheLimitArrivesWhole) {
  std::string const line = "+ " + std::string(kLimit - 2, 'y');
  std::deque<std::string> const received = receivedLines({line, "+ next"});
  ASSERT_EQ(3u, received.size());
  expectLine(line, received[0], "the line at the limit");
  EXPECT_EQ("+ next", received[1]);
}

// A multi-byte character across the cut is dropped whole.
TEST(TestCfgLineLimit, TheCutNeverSplitsAUtf8Character) {
  std::string const euro = "\xe2\x82\xac";
  std::string line = "* " + std::string(kLimit - kMarkerSize - 3, 'z');  // the euro sign starts 1 byte before the cut
  line += euro + euro + euro + euro;
  std::deque<std::string> const received = receivedLines({line});
  ASSERT_EQ(2u, received.size());
  std::string const expected = "* " + std::string(kLimit - kMarkerSize - 3, 'z') + " [cut]";
  expectLine(expected, received[0], "the line cut before the character");
}

}  // namespace
