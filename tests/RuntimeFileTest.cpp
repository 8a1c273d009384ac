#include "apps/RuntimeFile.h"

#include "apps/ConfigFile.h"
#include "tests/TestUtil.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace fs = boost::filesystem;

namespace {

qxapp::RuntimeFacts someFacts() {
  qxapp::RuntimeFacts facts;
  facts.pid = static_cast<long>(::getpid());
  facts.port = 45654;
  facts.version = "7.0.1";
  facts.configFile = "/etc/QXLite/config.json";
  facts.tokenFile = "/etc/QXLite/ipc.token";
  facts.started = 1795478107;
  return facts;
}

TEST(RuntimeFile, WhatIsWrittenIsReadBackWithMode0644) {
  qxtest::TempDir tmp;
  fs::path const folder = tmp / "run";
  qxapp::writeRuntimeFacts(folder, someFacts());
  struct stat st {};
  ASSERT_EQ(0, ::stat(qxapp::runtimeFileIn(folder).c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 07777);
  std::string why = "not cleared";
  std::optional<qxapp::RuntimeFacts> const read = qxapp::readRuntimeFacts(folder, why);
  EXPECT_EQ("", why);
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(someFacts().pid, read->pid);
  EXPECT_EQ(45654, read->port);
  EXPECT_EQ("7.0.1", read->version);
  EXPECT_EQ("/etc/QXLite/config.json", read->configFile);
  EXPECT_EQ("/etc/QXLite/ipc.token", read->tokenFile);
  EXPECT_EQ(1795478107, read->started);
}

TEST(RuntimeFile, NoFileIsNoFactsAndNoProblem) {
  qxtest::TempDir tmp;
  std::string why = "not cleared";
  EXPECT_FALSE(qxapp::readRuntimeFacts(tmp / "run", why).has_value());
  EXPECT_EQ("", why);
}

TEST(RuntimeFile, AFileThatIsNotOneIsRefusedWithTheReason) {
  struct Row {
    std::string content;
    std::string why;
  };
  std::string const good = R"("version":"7","config":"/c","tokenFile":"/t","started":1)";
  std::vector<Row> const rows = {
      {"", "is not one: JSON error: '[' or '{' expected near end of file at line 1, column 0"},
      {"[1]", "is not one: JSON error: text is a JSON array, not an object"},
      {R"({"pid":1})", "is not one: \"port\" is missing"},
      {R"({"pid":"1","port":1})", "is not one: JSON error: Wrong type: string. Expected type: integer"},
      {R"({"pid":0,"port":1,)" + good + "}", "is not one: \"pid\" is out of range"},
      {R"({"pid":1,"port":70000,)" + good + "}", "is not one: \"port\" is out of range"},
      {R"({"pid":1,"port":-1,)" + good + "}", "is not one: \"port\" is out of range"},
      {R"({"pid":1,"port":1,"version":"7","config":"/c","tokenFile":"","started":1})", "is not one: \"tokenFile\" is empty"},
      {R"({"pid":1,"port":1,"version":7,"config":"/c","tokenFile":"/t","started":1})",
       "is not one: JSON error: Wrong type: integer. Expected type: string"},
      {std::string(70 * 1024, ' '), "cannot be read: larger than 65536 bytes"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.content.substr(0, 80));
    qxtest::TempDir tmp;
    fs::create_directories(tmp / "run");
    qxtest::writeFile(qxapp::runtimeFileIn(tmp / "run"), row.content);
    std::string why;
    EXPECT_FALSE(qxapp::readRuntimeFacts(tmp / "run", why).has_value());
    EXPECT_EQ("the runtime file \"" + qxapp::runtimeFileIn(tmp / "run").string() + "\" " + row.why, why);
  }
}

TEST(RuntimeFile, ALinkOrAFolderInItsPlaceIsNotRead) {
  qxtest::TempDir tmp;
  fs::create_directories(tmp / "run");
  qxtest::writeFile(tmp / "elsewhere.json", "{}");
  fs::create_symlink(tmp / "elsewhere.json", qxapp::runtimeFileIn(tmp / "run"));
  std::string why;
  EXPECT_FALSE(qxapp::readRuntimeFacts(tmp / "run", why).has_value());
  EXPECT_EQ("the runtime file \"" + qxapp::runtimeFileIn(tmp / "run").string() +
                "\" cannot be read: Too many levels of symbolic links",
            why);
}

TEST(RuntimeFile, OnlyTheFileOfThisProcessIsRemoved) {
  qxtest::TempDir tmp;
  qxapp::RuntimeFacts other = someFacts();
  other.pid = someFacts().pid + 1;
  qxapp::writeRuntimeFacts(tmp / "run", other);
  qxapp::removeRuntimeFacts(tmp / "run");
  EXPECT_TRUE(fs::exists(qxapp::runtimeFileIn(tmp / "run")));
  qxapp::writeRuntimeFacts(tmp / "run", someFacts());
  qxapp::removeRuntimeFacts(tmp / "run");
  EXPECT_FALSE(fs::exists(qxapp::runtimeFileIn(tmp / "run")));
}

TEST(RuntimeFile, AFolderThatCannotBeMadeIsNamed) {
  qxtest::TempDir tmp;
  qxtest::writeFile(tmp / "plain", "x");
  try {
    qxapp::writeRuntimeFacts(tmp / "plain" / "run", someFacts());
    FAIL() << "no error";
  } catch (qxapp::ConfigError const& e) {
    EXPECT_EQ("the runtime folder \"" + (tmp / "plain" / "run").string() + "\" cannot be made: Not a directory",
              std::string(e.what()));
  }
}

}  // namespace

// Sets an environment variable for the life of the object, and puts back
// what was there.
class ScopedEnv {
 public:
  ScopedEnv(char const* name, char const* value) : m_name(name) {
    char const* old = std::getenv(name);
    if (old) m_old = old;
    m_had = old != nullptr;
    if (value) ::setenv(name, value, 1);
    else ::unsetenv(name);
  }
  ~ScopedEnv() {
    if (m_had) ::setenv(m_name, m_old.c_str(), 1);
    else ::unsetenv(m_name);
  }
  ScopedEnv(ScopedEnv const&) = delete;
  ScopedEnv& operator=(ScopedEnv const&) = delete;

 private:
  char const* m_name;
  std::string m_old;
  bool m_had = false;
};

TEST(RuntimeFile, TheServiceWritesWhereSystemdSaysElseByWhoItIs) {
  {
    ScopedEnv const given("RUNTIME_DIRECTORY", "/run/qxlite-unit:/run/other");
    EXPECT_EQ(fs::path("/run/qxlite-unit"), qxapp::serviceRuntimeFolder());
  }
  ScopedEnv const none("RUNTIME_DIRECTORY", nullptr);
  ScopedEnv const xdg("XDG_RUNTIME_DIR", "/run/user/4321");
  EXPECT_EQ(fs::path(::geteuid() == 0 ? "/run/qxlite" : "/run/user/4321/qxlite"), qxapp::serviceRuntimeFolder());
  {
    ScopedEnv const relative("RUNTIME_DIRECTORY", "run/qxlite");
    EXPECT_EQ(fs::path(::geteuid() == 0 ? "/run/qxlite" : "/run/user/4321/qxlite"), qxapp::serviceRuntimeFolder());
  }
}

TEST(RuntimeFile, AClientLooksInThePersonsFolderThenInTheSystems) {
  ScopedEnv const xdg("XDG_RUNTIME_DIR", "/run/user/4321");
  std::vector<fs::path> const expected = ::geteuid() == 0
                                             ? std::vector<fs::path>{"/run/qxlite"}
                                             : std::vector<fs::path>{"/run/user/4321/qxlite", "/run/qxlite"};
  EXPECT_EQ(expected, qxapp::clientRuntimeFolders());
}

TEST(RuntimeFile, AProcessThatEndedNoLongerRuns) {
  pid_t const child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) ::_exit(0);
  int status = 0;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_FALSE(qxapp::processRuns(child));
  EXPECT_TRUE(qxapp::processRuns(::getpid()));
  EXPECT_TRUE(qxapp::processRuns(1));  // another user's process runs too
  EXPECT_FALSE(qxapp::processRuns(0));
}
