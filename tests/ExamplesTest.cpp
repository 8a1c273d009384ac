// The programs of examples/ against a real qxlite-svc that the test starts in
// a temporary folder, on a loopback port that the test held until then:
// their exact output and exit status, and what arrived in the spool.
#include "tests/HeldPort.h"
#include "tests/ProcessHarness.h"
#include "tests/TestUtil.h"

#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using qxtest::Child;
using qxtest::HeldPort;
using qxtest::Outcome;
using qxtest::readFile;
using qxtest::writeFile;

char const* const kSvc = QX_SVC_PROGRAM;
char const* const kDropExample = QX_DROP_EXAMPLE;
char const* const kTestCfgExample = QX_TESTCFG_EXAMPLE;

class ExamplesTest : public ::testing::Test {
 protected:
  ExamplesTest()
      : tokenFile(tmp / "ipc.token"), in(tmp / "in"), out(tmp / "out"), backup(tmp / "backup") {}

  // The service on the held port, which its configuration names too, so
  // that the configuration test's port check passes whatever else runs here.
  void startService() {
    writeFile(tmp / "config.json", "{\"ReceiveFolder\":\"" + in.string() + "\",\"SpoolFolder\":\"" +
                                       out.string() + "\",\"BackupFolder\":\"" + backup.string() +
                                       "\",\"BackupExpireSecs\":4294967295,\"IpcPort\":" + held.text() + "}");
    held.release();
    service = std::make_unique<Child>(
        kSvc,
        std::vector<std::string>{"--config", (tmp / "config.json").string(), "--token-file", tokenFile.string(),
                                 "--port", held.text(), "--foreground", "--state-dir", (tmp / "state").string(),
                                 "--credentials", (tmp / "credentials.json").string(), "--runtime-dir",
                                 (tmp / "run").string()},
        tmp / "svc.out", tmp / "svc.err");
    std::string const serving = "INFO:qxlite-svc 7.0.1 serving on 127.0.0.1:" + held.text() + " ";
    ASSERT_TRUE(qxtest::waitFor([&] { return service->err().find(serving) != std::string::npos || !service->running(); },
                                qxtest::kProcessDeadline));
    ASSERT_TRUE(service->running()) << service->err();
  }

  // Runs an example with the service's options before args.
  Outcome run(char const* program, std::vector<std::string> const& args, bool withService = true) {
    std::vector<std::string> all;
    if (withService) all = {"--port", held.text(), "--token-file", tokenFile.string()};
    all.insert(all.end(), args.begin(), args.end());
    std::string const n = std::to_string(++m_runs);
    Child child(program, all, tmp / ("example-" + n + ".out"), tmp / ("example-" + n + ".err"));
    if (!child.wait()) ADD_FAILURE() << program << " did not end in time";
    return child.outcome();
  }

  // The content of the file at relative in a job folder of the outgoing
  // folder, once the intake has claimed it; empty when none does in time.
  std::string claimed(std::string const& relative) {
    std::string content;
    qxtest::waitFor([&] {
      if (!fs::exists(out)) return false;
      for (auto const& job : fs::directory_iterator(out)) {
        if (fs::exists(job.path() / relative)) content = readFile(job.path() / relative);
      }
      return !content.empty();
    });
    return content;
  }

  qxtest::TempDir tmp;
  fs::path const tokenFile;
  fs::path const in;
  fs::path const out;
  fs::path const backup;
  HeldPort held;
  std::unique_ptr<Child> service;

 private:
  unsigned m_runs = 0;
};

TEST_F(ExamplesTest, DropExampleAsksWhetherTheServiceRunsThenDropsAFolderAndAFile) {
  startService();
  fs::create_directories(tmp / "docs");
  writeFile(tmp / "docs" / "a.pdf", "first");
  writeFile(tmp / "docs" / "b.csv", "x,y\n1,2\n");
  Outcome const folder = run(kDropExample, {(tmp / "docs").string()});
  EXPECT_EQ(0, folder.status) << folder.err;
  EXPECT_EQ("", folder.err);
  EXPECT_EQ("the service is running\n"
            "sent 13 of 13 bytes (100%)\n"
            "dropped \"" + (tmp / "docs").string() + "\": 2 file(s), 13 bytes\n",
            folder.out);
  // A folder's drop arrives under a name of the service's choice.
  EXPECT_EQ("first", claimed("tmp/a.pdf"));
  EXPECT_EQ("x,y\n1,2\n", claimed("tmp/b.csv"));

  // Three pieces: whatever progress is shown on the way counts up, below
  // the total, before the total itself.
  std::string const big(3 * 1048576 + 5, 'b');
  writeFile(tmp / "big.pdf", big);
  Outcome const file = run(kDropExample, {(tmp / "big.pdf").string()});
  EXPECT_EQ(0, file.status) << file.err;
  EXPECT_EQ("", file.err);
  std::string const total = std::to_string(big.size());
  std::string const end = "sent " + total + " of " + total + " bytes (100%)\n" + "dropped \"" +
                          (tmp / "big.pdf").string() + "\": 1 file(s), " + total + " bytes\n";
  std::string const start = "the service is running\n";
  ASSERT_GE(file.out.size(), start.size() + end.size()) << file.out;
  EXPECT_EQ(start, file.out.substr(0, start.size()));
  EXPECT_EQ(end, file.out.substr(file.out.size() - end.size()));
  std::istringstream progress(file.out.substr(start.size(), file.out.size() - start.size() - end.size()));
  unsigned long long last = 0;
  for (std::string line; std::getline(progress, line);) {
    unsigned long long sent = 0;
    unsigned long long of = 0;
    unsigned percent = 0;
    char tail[16] = {};
    ASSERT_EQ(4, std::sscanf(line.c_str(), "sent %llu of %llu bytes (%u%%%15s", &sent, &of, &percent, tail)) << line;
    EXPECT_EQ(")", std::string(tail)) << line;
    EXPECT_EQ(big.size(), of) << line;
    EXPECT_GT(sent, last) << line;
    EXPECT_LT(sent, of) << line;
    EXPECT_EQ(sent * 100 / of, percent) << line;
    last = sent;
  }
  EXPECT_EQ(big, claimed("big.pdf"));
}

TEST_F(ExamplesTest, DropExampleOfAPausedService) {
  startService();
  writeFile(tmp / "a.pdf", "paused");
  Child pause(QX_CLI_PROGRAM, {"--port", held.text(), "--token-file", tokenFile.string(), "pause"}, tmp / "p.out",
              tmp / "p.err");
  ASSERT_TRUE(pause.wait());
  ASSERT_EQ(0, pause.status()) << pause.err();
  Outcome const o = run(kDropExample, {(tmp / "a.pdf").string()});
  EXPECT_EQ(0, o.status) << o.err;
  EXPECT_EQ("the service is paused\nsent 6 of 6 bytes (100%)\ndropped \"" + (tmp / "a.pdf").string() +
                "\": 1 file(s), 6 bytes\n",
            o.out);
  // Paused, the service leaves the item in its incoming folder.
  EXPECT_TRUE(qxtest::waitFor([&] { return readFile(in / "a.pdf") == "paused"; }));
}

TEST_F(ExamplesTest, ConfigurationTestExampleShowsEveryLineAndCountsThem) {
  startService();
  Outcome const o = run(kTestCfgExample, {});
  EXPECT_EQ(0, o.status) << o.err;
  EXPECT_EQ("", o.err);
  EXPECT_EQ("+ The configuration's values are accepted\n"
            "+ The incoming folder \"" + in.string() + "\" exists and can be written\n"
            "+ The outgoing folder \"" + out.string() + "\" exists and can be written\n"
            "+ The backup folder \"" + backup.string() + "\" exists and can be written\n"
            "+ The rejected folder \"" + (backup / ".rejected").string() + "\" exists and can be written\n"
            "+ The spool folders are distinct\n"
            "+ The extension lists hold texts only\n"
            "+ The IPC port " + held.text() + " is the one this service uses\n"
            "* No server address is set\n"
            "* No SMTP server is set: no e-mail notices\n"
            "+ Backup is on; items never expire\n"
            "configuration test: 9 passed, 2 warning(s), 0 error(s)\n",
            o.out);
}

// Each mistake is found and named in one line (and the usage for a wrong
// command line); nothing is sent.
TEST_F(ExamplesTest, ExamplesNameWhatIsWrong) {
  writeFile(tmp / "token", std::string(64, 'a') + "\n");
  ::chmod((tmp / "token").c_str(), 0600);
  fs::create_directories(tmp / "empty");
  writeFile(tmp / "empty" / "nothing.pdf", "");
  std::string const port = held.text();  // held: connections are refused
  std::string const dropUsage = "usage: qxlite-drop-example [--port PORT] [--token-file FILE] PATH\n";
  std::string const testUsage = "usage: qxlite-testcfg-example [--port PORT] [--token-file FILE]\n";
  struct Case {
    char const* program;
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  Case const cases[] = {
      {kDropExample, {}, 2, "qxlite-drop-example: one PATH to drop is needed\n" + dropUsage},
      {kDropExample, {"--port", "99999", "x"}, 2,
       "qxlite-drop-example: --port: \"99999\" is not a port number from 1 to 65535\n" + dropUsage},
      {kDropExample, {"x", "--port"}, 2, "qxlite-drop-example: --port needs a value\n" + dropUsage},
      {kDropExample, {"--port", port, (tmp / "none.pdf").string()}, 1,
       "qxlite-drop-example: \"" + (tmp / "none.pdf").string() + "\": No such file or directory\n"},
      {kDropExample, {"--port", port, "--token-file", (tmp / "token").string(), (tmp / "empty").string()}, 1,
       "WARNING:Ipc \"Drop File\" request with empty file. \"" + (tmp / "empty" / "nothing.pdf").string() +
           "\" skipped!\nqxlite-drop-example: \"" + (tmp / "empty").string() + "\" holds nothing to drop\n"},
      {kDropExample, {"--port", port, "--token-file", (tmp / "no.token").string(), (tmp / "token").string()}, 1,
       "qxlite-drop-example: Ipc token file \"" + (tmp / "no.token").string() +
           "\": cannot be opened: No such file or directory\n"},
      {kDropExample, {"--port", port, "--token-file", (tmp / "token").string(), (tmp / "token").string()}, 1,
       "qxlite-drop-example: cannot reach the service: Ipc cannot connect to the service at 127.0.0.1:" + port +
           ": Connection refused\n"},
      {kTestCfgExample, {"extra"}, 2, "qxlite-testcfg-example: unexpected \"extra\"\n" + testUsage},
      {kTestCfgExample, {"--port", "0"}, 2,
       "qxlite-testcfg-example: --port: \"0\" is not a port number from 1 to 65535\n" + testUsage},
      {kTestCfgExample, {"--port", port, "--token-file", (tmp / "no.token").string()}, 1,
       "qxlite-testcfg-example: Ipc token file \"" + (tmp / "no.token").string() +
           "\": cannot be opened: No such file or directory\n"},
      {kTestCfgExample, {"--port", port, "--token-file", (tmp / "token").string()}, 1,
       "qxlite-testcfg-example: cannot reach the service: Ipc cannot connect to the service at 127.0.0.1:" + port +
           ": Connection refused\n"},
  };
  for (Case const& c : cases) {
    std::string shown = c.program;
    for (std::string const& a : c.args) shown += " " + a;
    Outcome const o = run(c.program, c.args, false);
    EXPECT_EQ(c.status, o.status) << shown;
    // The log's timestamp is not compared.
    std::string err = o.err;
    if (err.rfind("20", 0) == 0 && err.size() > 25 && err[24] == ' ') err.erase(0, 25);
    EXPECT_EQ(c.err, err) << shown;
    EXPECT_EQ("", o.out) << shown;
  }
}

}  // namespace
