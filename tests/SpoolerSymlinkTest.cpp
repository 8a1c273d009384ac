// Tests of the spooler against a spool path changed after it was checked: a
// component (the folder itself or a parent) swapped for a link to another
// folder. The next move must fail with one log line naming the folder, move
// nothing, and leave the link's target untouched.
#include "apps/svc/SpoolPolicy.h"
#include "apps/svc/Spooler.h"
#include "tests/SpoolTestUtil.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;

// The names in folder, sorted.
std::vector<std::string> namesIn(fs::path const& folder) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(folder), end; it != end; ++it) names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

using Names = std::vector<std::string>;

class SpoolerSymlink : public ::testing::Test {
 protected:
  // The user's own folder "owner" holds the spool; "elsewhere" stands for a
  // folder that only root may write, which the user wants the service to
  // write into.
  SpoolerSymlink()
      : owner(tmp / "owner"),
        in(owner / "in"),
        out(owner / "out"),
        backup(owner / "backup"),
        elsewhere(tmp / "elsewhere"),
        settings(qxtest::spoolSettings(in, out, backup)) {}

  void SetUp() override {
    ASSERT_EQ("", qxsvc::checkFolders(settings));
    ASSERT_EQ("", qxsvc::prepareFolders(settings));
    ASSERT_TRUE(qxtest::makeFolder(elsewhere, 0700));
    qxtest::writeFile(elsewhere / "keep.txt", "root's");
  }

  // Replaces folder by a link to target; the folder itself is kept aside.
  void swapForLink(fs::path const& folder, fs::path const& target) {
    fs::rename(folder, folder.string() + ".aside");
    fs::create_directory_symlink(target, folder);
  }

  qxtest::TempDir tmp;
  fs::path const owner;
  fs::path const in;
  fs::path const out;
  fs::path const backup;
  fs::path const elsewhere;
  Settings const settings;
};

TEST_F(SpoolerSymlink, OutgoingFolderSwappedForALink) {
  qxsvc::Spooler spooler(settings, std::chrono::hours(1));
  qxtest::writeFile(in / "a.pdf", "aa");
  swapForLink(out, elsewhere);
  qxtest::LogCapture capture;
  spooler.scanNow();
  spooler.scanNow();  // the same problem is logged once
  EXPECT_EQ(Names{"ERR:qxlite-svc moves nothing: the outgoing folder \"" + out.string() + "\": \"" +
                  out.string() + "\" is a symbolic link"},
            capture.lines());
  EXPECT_EQ(Names{"a.pdf"}, namesIn(in));
  EXPECT_EQ(Names{"keep.txt"}, namesIn(elsewhere));
  EXPECT_EQ(Names{}, namesIn(out.string() + ".aside"));
  EXPECT_EQ("root's", qxtest::readFile(elsewhere / "keep.txt"));
}

TEST_F(SpoolerSymlink, ParentOfTheSpoolSwappedForALink) {
  // The user builds the same layout elsewhere, with an item of its own
  // waiting, and swaps the parent of all three folders.
  ASSERT_TRUE(qxtest::makeFolder(elsewhere / "in", 0750));
  ASSERT_TRUE(qxtest::makeFolder(elsewhere / "out", 0750));
  qxtest::writeFile(elsewhere / "in" / "b.pdf", "bb");
  qxsvc::Spooler spooler(settings, std::chrono::hours(1));
  qxtest::writeFile(in / "a.pdf", "aa");
  swapForLink(owner, elsewhere);
  qxtest::LogCapture capture;
  spooler.scanNow();
  EXPECT_EQ(Names{"ERR:qxlite-svc moves nothing: the incoming folder \"" + in.string() + "\": \"" +
                  owner.string() + "\" is a symbolic link"},
            capture.lines());
  EXPECT_EQ(Names{"a.pdf"}, namesIn(owner.string() + ".aside/in"));
  EXPECT_EQ(Names{"b.pdf"}, namesIn(elsewhere / "in"));
  EXPECT_EQ(Names{}, namesIn(elsewhere / "out"));
}

TEST_F(SpoolerSymlink, ParentOfTheOutgoingFolderAloneSwappedForALink) {
  Settings const split = qxtest::spoolSettings(in, tmp / "mine" / "out", backup);
  ASSERT_EQ("", qxsvc::prepareFolders(split));
  ASSERT_TRUE(qxtest::makeFolder(elsewhere / "out", 0750));
  qxsvc::Spooler spooler(split, std::chrono::hours(1));
  qxtest::writeFile(in / "a.pdf", "aa");
  swapForLink(tmp / "mine", elsewhere);
  qxtest::LogCapture capture;
  spooler.scanNow();
  EXPECT_EQ(Names{"ERR:qxlite-svc moves nothing: the outgoing folder \"" + (tmp / "mine" / "out").string() +
                  "\": \"" + (tmp / "mine").string() + "\" is a symbolic link"},
            capture.lines());
  EXPECT_EQ(Names{"a.pdf"}, namesIn(in));
  EXPECT_EQ(Names{}, namesIn(elsewhere / "out"));
}

TEST_F(SpoolerSymlink, DiscardOfPauseIntoASwappedRejectedFolder) {
  qxsvc::Spooler spooler(settings, std::chrono::hours(1));
  qxtest::writeFile(in / "a.pdf", "aa");
  swapForLink(settings.RejectedFolder, elsewhere);
  try {
    spooler.pause(true);
    ADD_FAILURE() << "the discard moved into a link";
  } catch (std::runtime_error const& e) {
    EXPECT_EQ("the rejected folder \"" + settings.RejectedFolder.string() + "\": \"" +
                  settings.RejectedFolder.string() + "\" is a symbolic link",
              std::string(e.what()));
  }
  EXPECT_EQ(Names{"a.pdf"}, namesIn(in));
  EXPECT_EQ(Names{"keep.txt"}, namesIn(elsewhere));
}

// Once the folder is back, the scan moves again and says so.
TEST_F(SpoolerSymlink, MovesResumeWhenTheFolderIsRestored) {
  qxsvc::Spooler spooler(settings, std::chrono::hours(1));
  qxtest::writeFile(in / "a.pdf", "aa");
  swapForLink(out, elsewhere);
  qxtest::LogCapture capture;
  spooler.scanNow();
  fs::remove(out);
  fs::rename(out.string() + ".aside", out);
  spooler.scanNow();
  EXPECT_EQ((Names{"ERR:qxlite-svc moves nothing: the outgoing folder \"" + out.string() + "\": \"" +
                       out.string() + "\" is a symbolic link",
                   "INFO:qxlite-svc queued a.pdf as \"" + (out / "a.pdf").string() + "\""}),
            capture.lines());
  EXPECT_EQ(Names{"a.pdf"}, namesIn(out));
  EXPECT_EQ(Names{}, namesIn(in));
}

}  // namespace
