// Settings::dump: the configuration report, line by line.
#include "settings/Settings.h"

#include "tests/SettingsTestUtil.h"
#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <vector>

namespace {

using qxtest::exts;
using qxtest::fullRecord;

// The lines of a text that ends in a line feed, without their line feeds.
std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> result;
  std::string::size_type start = 0;
  for (std::string::size_type end; (end = text.find('\n', start)) != std::string::npos;
       start = end + 1) {
    result.push_back(text.substr(start, end - start));
  }
  if (start != text.size()) result.push_back("(no final line feed) " + text.substr(start));
  return result;
}

std::size_t lineCount(std::string const& text) {
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

// The line of the report that comes right after the internet part (the
// backup line).
std::string backupLine(Settings const& s) {
  std::vector<std::string> const all = lines(s.dump());
  std::size_t const index = 7 + lineCount(s.InetConfig.dump());
  return index < all.size() ? all[index] : "(report too short)";
}

// Asserts the report exactly, line by line first for a readable failure.
void expectReport(Settings const& s, std::string const& expected) {
  std::string const actual = s.dump();
  EXPECT_EQ(lines(actual), lines(expected));
  EXPECT_EQ(actual, expected);
}

}  // namespace

TEST(SettingsReport, FullRecordGivesEveryLine) {
  Settings const s = fullRecord();
  std::string const inet = s.InetConfig.dump();
  std::string const email = s.EmailConfig.dump();
  // The embedded parts end their own lines; without that the lines around
  // them would merge.
  ASSERT_FALSE(inet.empty());
  ASSERT_EQ(inet.back(), '\n');
  ASSERT_FALSE(email.empty());
  ASSERT_EQ(email.back(), '\n');
  expectReport(s,
               "Account Id: acct-1\n"
               "Node Id: 42\n"
               "Key Id: 7\n"
               "Key: not empty\n"
               "Ignored extensions: [\"tmp\",\"noqx\"]\n"
               "Incoming Folder: \"/data/in\"\n"
               "Outgoing Folder: \"/data/out\"\n" +
                   inet +
                   "Backup items expire in 86400s (1 day(s) )\n"
                   "Backup folder \"/data/backup\"\n"
                   "Rejected folder \"/data/backup/.rejected\"\n"
                   "Trace logging enabled\n"
                   "Remote clients can configure the service\n"
                   "Zip uploads with 3 or more files\n"
                   "Setting folder name as pack title\n" +
                   email +
                   "Server accepted extensions: [\"pdf\",\"txt\"]\n"
                   "Max upload threads: 5\n"
                   "IPC TCP port: 5000\n"
                   "Maximum idle connection time: 120s\n"
                   "IP4 is forced\n"
                   "cURL debug tracing is enabled\n");
}

TEST(SettingsReport, DefaultRecordGivesEveryLine) {
  Settings const s{json::Object()};
  expectReport(s,
               "Account Id: \n"
               "Node Id: 0\n"
               "Key Id: 0\n"
               "Key: empty\n"
               "Ignored extensions: [\"noqx\",\"ds_store\",\"db\"]\n"
               "Incoming Folder: \"/var/spool/QXUpload/in\"\n"
               "Outgoing Folder: \"/var/spool/QXUpload/out\"\n" +
                   s.InetConfig.dump() +
                   "Backup disabled\n"
                   "Backup folder \"/var/spool/QXUpload/backup\"\n"
                   "Rejected folder \"/var/spool/QXUpload/backup/.rejected\"\n"
                   "Trace logging disabled\n"
                   "Remote clients cannot configure the service\n"
                   "Zip uploads with 10 or more files\n"
                   "Not using folder name\n" +
                   s.EmailConfig.dump() +
                   "Server accepted extensions: "
                   "[\"pdf\",\"ps\",\"xps\",\"oxps\",\"xml\",\"json\",\"js\",\"csv\",\"xls\","
                   "\"xlsx\",\"ods\",\"zip\",\"tar\",\"enm\",\"qxw\"]\n"
                   "Max upload threads: 2\n"
                   "IPC TCP port: 45654\n"
                   "Maximum idle connection time: 600s\n"
                   "IP4 is not forced\n");
}

TEST(SettingsReport, BackupLineFollowsTheExpiry) {
  struct Case {
    std::uint32_t secs;
    char const* line;
  };
  Case const cases[] = {
      {0, "Backup disabled"},
      {4294967295u, "Backup enabled, no expire"},
      {172800, "Backup items expire in 172800s (2 day(s) )"},
      {86399, "Backup items expire in 86399s (0 day(s) )"},
      {86400, "Backup items expire in 86400s (1 day(s) )"},
      {1, "Backup items expire in 1s (0 day(s) )"},
      {4294967294u, "Backup items expire in 4294967294s (49710 day(s) )"},
  };
  for (Case const& c : cases) {
    Settings s{json::Object()};
    s.BackupExpireSecs = c.secs;
    EXPECT_EQ(backupLine(s), c.line) << "BackupExpireSecs " << c.secs;
  }
}

TEST(SettingsReport, NoCurlLineWithoutTraceLogging) {
  for (bool curl : {false, true}) {
    Settings s = fullRecord();
    s.EnableLogging = false;
    s.EnableCurlDbgLog = curl;
    std::string const report = s.dump();
    EXPECT_EQ(report.find("cURL debug tracing is "), std::string::npos) << "curl " << curl;
    EXPECT_EQ(lines(report).back(), "IP4 is forced") << "curl " << curl;
  }
}

TEST(SettingsReport, CurlLineEndsTheReportWithTraceLogging) {
  Settings s = fullRecord();
  s.EnableCurlDbgLog = false;
  EXPECT_EQ(lines(s.dump()).back(), "cURL debug tracing is disabled");
  s.EnableCurlDbgLog = true;
  EXPECT_EQ(lines(s.dump()).back(), "cURL debug tracing is enabled");
}

TEST(SettingsReport, KeyIsNeverShown) {
  Settings s{json::Object()};
  s.PublicKey = "-----BEGIN PUBLIC KEY-----MIIBIjANBg";
  std::string const report = s.dump();
  EXPECT_EQ(lines(report).at(3), "Key: not empty");
  EXPECT_EQ(report.find("BEGIN PUBLIC KEY"), std::string::npos);
  EXPECT_EQ(report.find("MIIBIjANBg"), std::string::npos);
  s.PublicKey = " ";
  EXPECT_EQ(lines(s.dump()).at(3), "Key: not empty");
}

TEST(SettingsReport, NumbersAreWrittenInFull) {
  Settings s = fullRecord();
  s.SpoolerId = Settings::INVALID_NODE_ID;
  s.KeyId = LLONG_MIN;
  s.MinFilesToZip = 4294967295u;
  s.ConcurrentUploads = std::numeric_limits<std::size_t>::max();
  s.IpcPort = 65535;
  s.MaxConnIdleSecs = 4294967295u;
  std::string const report = s.dump();
  std::vector<std::string> const all = lines(report);
  EXPECT_EQ(all.at(1), "Node Id: -1");
  EXPECT_EQ(all.at(2), "Key Id: -9223372036854775808");
  for (char const* line :
       {"\nZip uploads with 4294967295 or more files\n",
        "\nMax upload threads: 18446744073709551615\n", "\nIPC TCP port: 65535\n",
        "\nMaximum idle connection time: 4294967295s\n"}) {
    EXPECT_NE(report.find(line), std::string::npos) << line << "\nin:\n" << report;
  }
}

TEST(SettingsReport, FoldersAreQuotedWithAmpersandEscapes) {
  Settings s{json::Object()};
  s.ReceiveFolder = "/data/a \"quoted\" & dir";
  s.SpoolFolder = "relative out";
  s.BackupFolder = "/b&b";
  s.fix();
  std::vector<std::string> const all = lines(s.dump());
  EXPECT_EQ(all.at(5), "Incoming Folder: \"/data/a &\"quoted&\" && dir\"");
  EXPECT_EQ(all.at(6), "Outgoing Folder: \"relative out\"");
  std::size_t const afterInet = 7 + lineCount(s.InetConfig.dump());
  EXPECT_EQ(all.at(afterInet + 1), "Backup folder \"/b&&b\"");
  EXPECT_EQ(all.at(afterInet + 2), "Rejected folder \"/b&&b/.rejected\"");
}
