// Tests of the folders the service may use, through the service's handler of
// SaveCfg: each refused folder is refused with a message that names it and
// the rule, nothing is made, and the configuration file is not written.
#include "apps/svc/SpoolPolicy.h"
#include "apps/svc/SvcProcessor.h"
#include "ipc/IpcCmdsLite.h"
#include "tests/SpoolTestUtil.h"
#include "tests/TestUtil.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;

class SpoolFolderRules : public ::testing::Test {
 protected:
  SpoolFolderRules()
      : cfgFile(tmp / "config.json"),
        base(qxtest::spoolSettings(tmp / "spool" / "in", tmp / "spool" / "out", tmp / "spool" / "backup")),
        pipeline(base, qxtest::pipelineOptions(tmp / "state")),
        processor(base, cfgFile, pipeline, workers, 5) {}

  void SetUp() override {
    ASSERT_EQ("", qxsvc::prepareFolders(base));
    pipeline.start();
  }

  // SaveCfg of the configuration in force with key set to folder: the
  // message when refused, "saved" when saved.
  std::string save(std::string const& key, std::string const& folder) {
    Ipc::SaveCfg cmd(nullptr);
    cmd.payload = base.serialize();
    cmd.payload.setAt(key.c_str(), json::Value(folder));
    processor.visit(cmd);
    if (cmd.ok) return "saved";
    return cmd.msg;
  }

  qxtest::TempDir tmp;
  fs::path const cfgFile;
  Settings const base;
  qxsvc::Pipeline pipeline;
  qxsvc::WorkerPool workers;
  qxsvc::SvcProcessor processor;
};

struct RefusedCase {
  std::string key;
  std::string folder;
  std::string why;  // after "Configuration not saved: "
};

// System locations, including those that the service's own places lie in.
TEST_F(SpoolFolderRules, SystemLocationsAreRefused) {
  std::vector<RefusedCase> const cases{
      {"ReceiveFolder", "/var", R"(the incoming folder "/var": "/var" is a system location)"},
      {"ReceiveFolder", "/var/log", R"(the incoming folder "/var/log": "/var/log" is a system location)"},
      {"ReceiveFolder", "/var/spool/cron/crontabs",
       R"(the incoming folder "/var/spool/cron/crontabs": "/var/spool" is a system location)"},
      {"SpoolFolder", "/var/www", R"(the outgoing folder "/var/www": "/var/www" is a system location)"},
      {"SpoolFolder", "/var/mail", R"(the outgoing folder "/var/mail": "/var/mail" is a system location)"},
      {"BackupFolder", "/opt", R"(the backup folder "/opt": "/opt" is a system location)"},
      {"BackupFolder", "/srv", R"(the backup folder "/srv": "/srv" is a system location)"},
      {"ReceiveFolder", "/home", R"(the incoming folder "/home": "/home" is a system location)"},
      {"ReceiveFolder", "/var/www/qxlite-rules-probe",
       R"(the incoming folder "/var/www/qxlite-rules-probe": "/var/www" is a system location)"},
      {"ReceiveFolder", "/var/spool/QXUploadX/in",
       R"(the incoming folder "/var/spool/QXUploadX/in": "/var/spool" is a system location)"},
      {"ReceiveFolder", "/var/spool/QXUpload/../cron",
       R"(the incoming folder "/var/spool/QXUpload/../cron": "/var/spool" is a system location)"},
      {"ReceiveFolder", "/lib64/qxlite-rules-probe",
       R"(the incoming folder "/lib64/qxlite-rules-probe": "/lib64" is a system location)"},
      {"ReceiveFolder", "/usr/local/qxlite-rules-probe",
       R"(the incoming folder "/usr/local/qxlite-rules-probe": "/usr" is a system location)"},
      {"ReceiveFolder", "/", R"(the incoming folder "/" is the root folder)"},
      {"ReceiveFolder", "qx", R"(the incoming folder "qx" is not an absolute path)"},
      {"ReceiveFolder", "../spool/in", R"(the incoming folder "../spool/in" is not an absolute path)"},
  };
  for (RefusedCase const& c : cases) {
    EXPECT_EQ("Configuration not saved: " + c.why, save(c.key, c.folder)) << c.key << "=" << c.folder;
  }
  EXPECT_FALSE(fs::exists("/var/www/qxlite-rules-probe"));
  EXPECT_FALSE(fs::exists("/var/spool/QXUploadX"));
  EXPECT_FALSE(fs::exists("/lib64/qxlite-rules-probe"));
  EXPECT_FALSE(fs::exists("/usr/local/qxlite-rules-probe"));
  EXPECT_FALSE(fs::exists(cfgFile));
}

// A folder below one that someone else could change, and folders given by
// a path with a link in it.
TEST_F(SpoolFolderRules, FoldersThatOthersCouldChangeAreRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving folders to another user needs root";
  qxtest::OtherUser const nobody = qxtest::otherUser();
  std::string const t = tmp.path().string();
  ASSERT_TRUE(qxtest::makeFolder(tmp / "open", 0777));
  ASSERT_TRUE(qxtest::makeFolder(tmp / "group", 0770));
  ASSERT_TRUE(qxtest::makeFolder(tmp / "sticky", 01777));
  ASSERT_TRUE(qxtest::makeFolder(tmp / "sticky" / "theirs", 0755, &nobody));
  ASSERT_TRUE(qxtest::makeFolder(tmp / "nobodys", 0755, &nobody));
  ASSERT_TRUE(qxtest::makeFolder(tmp / "openfolder", 0757));
  ASSERT_TRUE(qxtest::makeFolder(tmp / "real", 0755));
  fs::create_directory_symlink(tmp / "real", tmp / "link");
  uid_t const other = nobody.uid;
  std::vector<RefusedCase> const cases{
      {"ReceiveFolder", t + "/open/in",
       "the incoming folder \"" + t + "/open/in\": \"" + t + "/open\" is writable by others (mode 0777)"},
      {"SpoolFolder", t + "/group/out",
       "the outgoing folder \"" + t + "/group/out\": \"" + t + "/group\" is writable by its group (mode 0770)"},
      {"BackupFolder", t + "/sticky/theirs/backup",
       "the backup folder \"" + t + "/sticky/theirs/backup\": \"" + t +
           "/sticky\" is writable by others (mode 1777) and \"" + t + "/sticky/theirs\" belongs to user id " +
           std::to_string(other)},
      {"ReceiveFolder", t + "/nobodys",
       "the incoming folder \"" + t + "/nobodys\": \"" + t + "/nobodys\" belongs to user id " + std::to_string(other)},
      {"ReceiveFolder", t + "/openfolder",
       "the incoming folder \"" + t + "/openfolder\": \"" + t + "/openfolder\" is writable by others (mode 0757)"},
      {"ReceiveFolder", t + "/link/in",
       "the incoming folder \"" + t + "/link/in\": \"" + t + "/link\" is a symbolic link"},
  };
  for (RefusedCase const& c : cases) {
    EXPECT_EQ("Configuration not saved: " + c.why, save(c.key, c.folder)) << c.key << "=" << c.folder;
  }
  // Nothing was made on the way to the refusal, and nothing saved.
  EXPECT_FALSE(fs::exists(tmp / "open" / "in"));
  EXPECT_FALSE(fs::exists(tmp / "group" / "out"));
  EXPECT_FALSE(fs::exists(tmp / "sticky" / "theirs" / "backup"));
  EXPECT_FALSE(fs::exists(tmp / "real" / "in"));
  EXPECT_FALSE(fs::exists(cfgFile));
}

// The folders that must keep working: under a sticky folder in a child of
// this user, and under a folder of this user.
TEST_F(SpoolFolderRules, FoldersOfThisUserBelowASafeParentAreSaved) {
  ASSERT_TRUE(qxtest::makeFolder(tmp / "sticky", 01777));
  ASSERT_TRUE(qxtest::makeFolder(tmp / "sticky" / "mine", 0755));
  EXPECT_EQ("saved", save("ReceiveFolder", (tmp / "sticky" / "mine" / "in").string()));
  EXPECT_EQ("saved", save("SpoolFolder", (tmp / "deep" / "er" / "out").string()));
  struct stat st {};
  ASSERT_EQ(0, ::stat((tmp / "deep" / "er").c_str(), &st));
  EXPECT_EQ(0750u, st.st_mode & 07777u);
  ASSERT_EQ(0, ::stat((tmp / "sticky" / "mine" / "in").c_str(), &st));
  EXPECT_EQ(0750u, st.st_mode & 07777u);
  EXPECT_TRUE(fs::exists(cfgFile));
}

TEST(SpoolFolderLocation, TheServicesOwnPlacesAreNotSystemLocations) {
  struct Case {
    char const* folder;
    std::string why;
  };
  std::vector<Case> const cases{
      {"/var/spool/QXUpload/in", ""},
      {"/var/spool/QXUpload/backup/.rejected", ""},
      {"/var/lib/qxlite/spool", ""},
      {"/var/lib/qxlite2", R"("/var/lib/qxlite2": "/var/lib" is a system location)"},
      {"/var/spool/QXUpload/../QXUpload2", R"("/var/spool/QXUpload/../QXUpload2": "/var/spool" is a system location)"},
      {"/library/in", R"("/library/in": "/library" is a system location)"},
      {"/srv2/in", ""},
      {"/tmp/in", ""},
  };
  for (Case const& c : cases) EXPECT_EQ(c.why, qxsvc::checkLocation(c.folder)) << c.folder;
}

}  // namespace
