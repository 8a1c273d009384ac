// The service's configuration test makes nothing to find out whether a
// folder can be made or written: missing folders below a system location
// and below another user's private folder are reported as they are, and
// neither place changes (checked with a stamp file and find -newer).
#include "apps/svc/ConfigTestRunner.h"
#include "ipc/IpcCmdsLite.h"
#include "tests/SpoolTestUtil.h"
#include "tests/TestUtil.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;

// The result lines of the service's test of settings, in order, up to the
// first line about something other than the spool folders.
std::vector<std::string> folderLines(Settings const& settings) {
  Ipc::TestCfg cmd(nullptr, settings);
  qxsvc::ConfigTestRunner runner(cmd, {}, {}, 5);
  while (runner.runStep()) {
  }
  std::vector<std::string> lines;
  for (std::string const& line : cmd.respMsgs()->lines) {
    if (line.find("spool folders") != std::string::npos) break;
    lines.push_back(line);
  }
  return lines;
}

TEST(ConfigTestNoProbe, MissingFoldersInASystemLocationAndInAnotherUsersFolder) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving a folder to another user needs root";
  qxtest::TempDir tmp;
  qxtest::OtherUser const nobody = qxtest::otherUser();
  fs::path const other = tmp / "other";
  ASSERT_TRUE(qxtest::makeFolder(other, 0700, &nobody));
  fs::path const inSystem("/var/spool/qxlite-probe-missing/in");
  ASSERT_FALSE(fs::exists(inSystem.parent_path()));
  Settings const settings = qxtest::spoolSettings(inSystem, other / "out", other / "backup");

  qxtest::ChangeStamp const stamp(tmp / "stamp");
  std::vector<std::string> const lines = folderLines(settings);

  std::string const o = other.string();
  std::string const owner = "    -> \"" + o + "\" belongs to user id " + std::to_string(nobody.uid);
  std::vector<std::string> const expected{
      "+ The configuration's values are accepted",
      "- The incoming folder \"" + inSystem.string() + "\" cannot be used",
      "    -> \"" + inSystem.string() + "\": \"/var/spool\" is a system location",
      "- The outgoing folder \"" + o + "/out\" cannot be made",
      owner,
      "- The backup folder \"" + o + "/backup\" cannot be made",
      owner,
      "- The rejected folder \"" + o + "/backup/.rejected\" cannot be made",
      owner,
  };
  EXPECT_EQ(expected, lines);
  EXPECT_EQ(std::vector<std::string>{}, stamp.changedIn("/var/spool"));
  EXPECT_EQ(std::vector<std::string>{}, stamp.changedIn(other));
  EXPECT_FALSE(fs::exists(inSystem.parent_path()));
}

// The folders of this user: missing ones can be made below an existing
// folder of this user, existing ones can be written, and asking made and
// removed nothing.
TEST(ConfigTestNoProbe, FoldersThatCanBeMadeOrWrittenAreAskedAbout) {
  qxtest::TempDir tmp;
  ASSERT_TRUE(qxtest::makeFolder(tmp / "in", 0750));
  Settings const settings = qxtest::spoolSettings(tmp / "in", tmp / "new" / "out", tmp / "backup");
  qxtest::ChangeStamp const stamp(tmp / "stamp");
  std::vector<std::string> const lines = folderLines(settings);
  std::string const t = tmp.path().string();
  std::vector<std::string> const expected{
      "+ The configuration's values are accepted",
      "+ The incoming folder \"" + t + "/in\" exists and can be written",
      "+ The outgoing folder \"" + t + "/new/out\" does not exist yet and can be made",
      "+ The backup folder \"" + t + "/backup\" does not exist yet and can be made",
      "+ The rejected folder \"" + t + "/backup/.rejected\" does not exist yet and can be made",
  };
  EXPECT_EQ(expected, lines);
  EXPECT_EQ(std::vector<std::string>{}, stamp.changedIn(tmp.path()));
}

// An unprivileged service may not write into a folder it cannot write: the
// test says so by asking for the service's own ids, without trying. Root may
// write everywhere, so under root the test runs in a child that becomes
// "nobody" first.
void expectLockedFolderReported(fs::path const& home) {
  ASSERT_TRUE(qxtest::makeFolder(home / "locked", 0500));
  Settings const settings = qxtest::spoolSettings(home / "locked" / "in", home / "out", home / "backup");
  std::vector<std::string> const lines = folderLines(settings);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ("- The incoming folder \"" + (home / "locked" / "in").string() + "\" cannot be made", lines[1]);
  EXPECT_EQ("    -> \"" + (home / "locked").string() + "\": Permission denied", lines[2]);
  EXPECT_FALSE(fs::exists(home / "locked" / "in"));
  ::chmod((home / "locked").c_str(), 0700);
}

TEST(ConfigTestNoProbe, AFolderThatTheServiceCannotWriteIsReportedWithoutTrying) {
  qxtest::TempDir tmp;
  if (::geteuid() != 0) {
    expectLockedFolderReported(tmp.path());
    return;
  }
  qxtest::OtherUser const nobody = qxtest::otherUser();
  fs::path const home = tmp / "home";
  ASSERT_TRUE(qxtest::makeFolder(home, 0700, &nobody));
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        if (::setgid(nobody.gid) != 0 || ::setuid(nobody.uid) != 0) std::_Exit(3);
        expectLockedFolderReported(home);
        std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
