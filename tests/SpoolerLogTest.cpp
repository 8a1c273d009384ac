// The service's log of a dropped item whose name holds line feeds: the item
// is queued and logged as one line, its name escaped, and no line of the
// name's own making appears.
#include "apps/svc/SpoolPolicy.h"
#include "apps/svc/Spooler.h"
#include "tests/SpoolTestUtil.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;

TEST(SpoolerLog, ANameWithLineFeedsIsLoggedAsOneEscapedLine) {
  qxtest::TempDir tmp;
  Settings const settings = qxtest::spoolSettings(tmp / "in", tmp / "out", tmp / "backup");
  ASSERT_EQ("", qxsvc::prepareFolders(settings));
  qxsvc::Spooler spooler(settings, std::chrono::hours(1));
  std::string const name = "report\n2026-11-21T21:53:22.123Z ERR:qxlite-svc disk full\r\x1b[2K.pdf";
  std::string const escaped = "report\\n2026-11-21T21:53:22.123Z ERR:qxlite-svc disk full\\r\\x1b[2K.pdf";
  qxtest::writeFile(tmp / "in" / name, "%PDF");
  qxtest::LogCapture capture;
  spooler.scanNow();
  EXPECT_EQ(std::vector<std::string>{"INFO:qxlite-svc queued " + escaped + " as \"" + (tmp / "out").string() +
                                     "/" + escaped + "\""},
            capture.lines());
  EXPECT_EQ("%PDF", qxtest::readFile(tmp / "out" / name));
}

TEST(SpoolerLog, ARejectedNameWithLineFeedsIsLoggedAsOneEscapedLine) {
  qxtest::TempDir tmp;
  Settings const settings = qxtest::spoolSettings(tmp / "in", tmp / "out", tmp / "backup");
  ASSERT_EQ("", qxsvc::prepareFolders(settings));
  qxsvc::Spooler spooler(settings, std::chrono::hours(1));
  qxtest::writeFile(tmp / "in" / "tool\nINFO:fine.exe", "MZ");
  qxtest::LogCapture capture;
  spooler.scanNow();
  std::string const item = (tmp / "in").string() + "/tool\\nINFO:fine.exe";
  std::string const moved = settings.RejectedFolder.string() + "/tool\\nINFO:fine.exe";
  EXPECT_EQ(std::vector<std::string>{"WARNING:qxlite-svc rejected tool\\nINFO:fine.exe: \"" + item +
                                     "\" is not accepted; moved to \"" + moved + "\""},
            capture.lines());
}

}  // namespace
