// loadCredentials: a file that only the service's user may read gives its
// user and secret; every other file is refused with a sentence that names it.
#include "apps/svc/upload/Credentials.h"

#include "tests/SpoolTestUtil.h"
#include "tests/TestUtil.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using qxtest::runtimeErrorMessage;
using qxtest::TempDir;
using qxtest::writeFile;

std::string named(boost::filesystem::path const& file) {
  return "the credentials file \"" + file.string() + "\"";
}

boost::filesystem::path writeCredentials(TempDir const& dir, std::string const& content, mode_t mode) {
  boost::filesystem::path const file = dir / "credentials.json";
  writeFile(file, content);
  EXPECT_EQ(0, ::chmod(file.c_str(), mode));
  return file;
}

TEST(CredentialsTest, ReadsUserAndSecret) {
  struct Case {
    char const* content;
    mode_t mode;
    char const* user;
    char const* secret;
  } const cases[] = {
      {R"({"user": "KEY", "secret": "SECRET"})", 0600, "KEY", "SECRET"},
      {R"({"secret": "p \u00e9 %+#?", "user": "r\u00e9mi b"})", 0400, "r\xC3\xA9mi b", "p \xC3\xA9 %+#?"},
      {R"({"user": "u", "secret": "s", "comment": 1})", 0600, "u", "s"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.content);
    TempDir dir;
    qxsvc::Credentials const credentials = qxsvc::loadCredentials(writeCredentials(dir, c.content, c.mode));
    EXPECT_EQ(c.user, credentials.user);
    EXPECT_EQ(c.secret, credentials.secret);
  }
}

TEST(CredentialsTest, RefusesContentWithAReason) {
  struct Case {
    std::string content;
    char const* why;  // after the file's name
  } const cases[] = {
      {R"({"secret": "s"})", " has no \"user\""},
      {R"({"user": "u"})", " has no \"secret\""},
      {R"({"user": "", "secret": "s"})", " has an empty \"user\""},
      {R"({"user": "u", "secret": 7})", " has a \"secret\" that is not a text"},
      {R"({"user": "a:b", "secret": "s"})", " has a \"user\" with a \":\", which no server can take"},
      {std::string(64 * 1024 + 1, ' '), " is larger than 64 KiB"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.content.substr(0, 60));
    TempDir dir;
    boost::filesystem::path const file = writeCredentials(dir, c.content, 0600);
    EXPECT_EQ(named(file) + c.why, runtimeErrorMessage([&] { qxsvc::loadCredentials(file); }));
  }
}

TEST(CredentialsTest, RefusesTextThatIsNoJsonObject) {
  for (char const* content : {"", "user=u", "[1]", "{\"user\": \"u\", \"user\": \"v\", \"secret\": \"s\"}"}) {
    SCOPED_TRACE(content);
    TempDir dir;
    boost::filesystem::path const file = writeCredentials(dir, content, 0600);
    std::string const message = runtimeErrorMessage([&] { qxsvc::loadCredentials(file); });
    EXPECT_EQ(0u, message.find(named(file) + " is not a JSON object: ")) << message;
  }
}

TEST(CredentialsTest, RefusesModesThatLetOthersIn) {
  struct Case {
    mode_t mode;
    char const* why;
  } const cases[] = {
      {0644, " is readable by others (mode 0644): chmod 600 it"},
      {0640, " is readable by others (mode 0640): chmod 600 it"},
      {0604, " is readable by others (mode 0604): chmod 600 it"},
      {0620, " is open to others (mode 0620): chmod 600 it"},
      {0602, " is open to others (mode 0602): chmod 600 it"},
      {0610, " is open to others (mode 0610): chmod 600 it"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.mode);
    TempDir dir;
    boost::filesystem::path const file = writeCredentials(dir, R"({"user": "u", "secret": "s"})", c.mode);
    EXPECT_EQ(named(file) + c.why, runtimeErrorMessage([&] { qxsvc::loadCredentials(file); }));
  }
}

TEST(CredentialsTest, RefusesALink) {
  TempDir dir;
  boost::filesystem::path const target = writeCredentials(dir, R"({"user": "u", "secret": "s"})", 0600);
  boost::filesystem::path const link = dir / "link.json";
  boost::filesystem::create_symlink(target, link);
  EXPECT_EQ(named(link) + " is a symbolic link: give the file itself",
            runtimeErrorMessage([&] { qxsvc::loadCredentials(link); }));
}

TEST(CredentialsTest, RefusesAFileOfAnotherUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving a file away needs root";
  TempDir dir;
  boost::filesystem::path const file = writeCredentials(dir, R"({"user": "u", "secret": "s"})", 0600);
  qxtest::OtherUser const nobody = qxtest::otherUser();
  ASSERT_EQ(0, ::chown(file.c_str(), nobody.uid, nobody.gid));
  EXPECT_EQ(named(file) + " belongs to user id " + std::to_string(nobody.uid) +
                ", not to the service's user (id 0): chown it",
            runtimeErrorMessage([&] { qxsvc::loadCredentials(file); }));
}

TEST(CredentialsTest, RefusesWhatIsNoRegularFile) {
  TempDir dir;
  boost::filesystem::path const missing = dir / "missing.json";
  EXPECT_EQ(named(missing) + " cannot be opened: No such file or directory",
            runtimeErrorMessage([&] { qxsvc::loadCredentials(missing); }));
  boost::filesystem::path const folder = dir / "folder";
  ASSERT_TRUE(qxtest::makeFolder(folder, 0700));
  EXPECT_EQ(named(folder) + " is not a regular file",
            runtimeErrorMessage([&] { qxsvc::loadCredentials(folder); }));
  // A FIFO with no writer would block a plain open.
  boost::filesystem::path const fifo = dir / "fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  EXPECT_EQ(named(fifo) + " is not a regular file",
            runtimeErrorMessage([&] { qxsvc::loadCredentials(fifo); }));
}

TEST(CredentialsTest, DefaultPathFollowsTheCredentialsDirectory) {
  char const* saved = std::getenv("CREDENTIALS_DIRECTORY");
  std::string const savedValue = saved ? saved : "";
  ::setenv("CREDENTIALS_DIRECTORY", "/run/credentials/qxlite-svc.service", 1);
  EXPECT_EQ("/run/credentials/qxlite-svc.service/upload", qxsvc::defaultCredentialsPath().string());
  ::setenv("CREDENTIALS_DIRECTORY", "", 1);
  EXPECT_EQ("/etc/QXLite/credentials.json", qxsvc::defaultCredentialsPath().string());
  ::unsetenv("CREDENTIALS_DIRECTORY");
  EXPECT_EQ("/etc/QXLite/credentials.json", qxsvc::defaultCredentialsPath().string());
  if (saved) ::setenv("CREDENTIALS_DIRECTORY", savedValue.c_str(), 1);
}

}  // namespace
