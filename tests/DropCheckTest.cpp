#include "apps/cli/DropCheck.h"

#include "tests/SpoolTestUtil.h"
#include "tests/TestUtil.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace fs = boost::filesystem;

namespace {

class DropCheckTest : public ::testing::Test {
 public:  // for the rows of the tables below
  std::string at(char const* name) const { return (tmp / name).string(); }
  std::string quoted(char const* name) const { return "\"" + at(name) + "\""; }

  void fifo(char const* name) const { ASSERT_EQ(0, ::mkfifo(at(name).c_str(), 0644)) << name; }
  void socketFile(char const* name) {
    int const fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    m_sockets.push_back(fd);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string const path = at(name);
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address)) << path;
  }
  ~DropCheckTest() override {
    for (int fd : m_sockets) ::close(fd);
  }

  qxtest::TempDir tmp;
  std::vector<int> m_sockets;
};

TEST_F(DropCheckTest, EveryLocalProblemIsNamedWithItsPath) {
  struct Row {
    char const* what;
    std::function<void(DropCheckTest&)> make;
    std::vector<char const*> paths;
    std::function<std::vector<std::string>(DropCheckTest const&)> expected;
  };
  std::vector<Row> const rows = {
      {"a file", [](DropCheckTest& t) { qxtest::writeFile(t.tmp / "a.pdf", "a"); }, {"a.pdf"},
       [](DropCheckTest const&) { return std::vector<std::string>{}; }},
      {"a missing path", [](DropCheckTest&) {}, {"none.pdf"},
       [](DropCheckTest const& t) { return std::vector<std::string>{t.quoted("none.pdf") + " does not exist"}; }},
      {"a link to nothing", [](DropCheckTest& t) { fs::create_symlink(t.tmp / "gone", t.tmp / "dangling.pdf"); },
       {"dangling.pdf"},
       [](DropCheckTest const& t) { return std::vector<std::string>{t.quoted("dangling.pdf") + " does not exist"}; }},
      {"a FIFO", [](DropCheckTest& t) { t.fifo("fifo.pdf"); }, {"fifo.pdf"},
       [](DropCheckTest const& t) {
         return std::vector<std::string>{t.quoted("fifo.pdf") + " is not a file or a folder (a FIFO)"};
       }},
      {"a socket", [](DropCheckTest& t) { t.socketFile("s.pdf"); }, {"s.pdf"},
       [](DropCheckTest const& t) {
         return std::vector<std::string>{t.quoted("s.pdf") + " is not a file or a folder (a socket)"};
       }},
      {"a folder with a sub-folder and a FIFO",
       [](DropCheckTest& t) {
         fs::create_directories(t.tmp / "docs" / "inner");
         qxtest::writeFile(t.tmp / "docs" / "a.pdf", "a");
         ASSERT_EQ(0, ::mkfifo((t.tmp / "docs" / "b.pdf").c_str(), 0644));
       },
       {"docs"},
       [](DropCheckTest const& t) {
         return std::vector<std::string>{
             "\"" + (t.tmp / "docs" / "b.pdf").string() + "\" is not a file or a folder (a FIFO)",
             "\"" + (t.tmp / "docs" / "inner").string() +
                 "\" is a sub-folder: only the files directly in a dropped folder are sent"};
       }},
      {"several paths: every problem, in order",
       [](DropCheckTest& t) {
         qxtest::writeFile(t.tmp / "ok.pdf", "a");
         t.fifo("f.pdf");
       },
       {"missing.pdf", "ok.pdf", "f.pdf"},
       [](DropCheckTest const& t) {
         return std::vector<std::string>{t.quoted("missing.pdf") + " does not exist",
                                         t.quoted("f.pdf") + " is not a file or a folder (a FIFO)"};
       }},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.what);
    DropCheckTest* self = this;
    fs::remove_all(tmp.path());
    fs::create_directories(tmp.path());
    row.make(*self);
    if (HasFatalFailure()) return;
    std::vector<std::string> paths;
    for (char const* p : row.paths) paths.push_back(at(p));
    EXPECT_EQ(row.expected(*this), qxcli::localDropProblems(paths));
  }
}

TEST_F(DropCheckTest, ADeviceIsNotAFile) {
  EXPECT_EQ(std::vector<std::string>{"\"/dev/null\" is not a file or a folder (a character device)"},
            qxcli::localDropProblems({"/dev/null"}));
}

// Root reads every file: root's unreadable files are looked at by a child
// that is another user. Anyone else is kept out of its own files by their
// modes.
TEST_F(DropCheckTest, WhatTheUserCannotReadIsNamedWithTheReason) {
  bool const root = ::geteuid() == 0;
  mode_t const fileMode = root ? 0600 : 0000;
  mode_t const folderMode = root ? 0700 : 0000;
  ASSERT_EQ(0, ::chmod(tmp.path().c_str(), 0755));
  qxtest::writeFile(tmp / "secret.pdf", "s");
  ASSERT_EQ(0, ::chmod((tmp / "secret.pdf").c_str(), fileMode));
  fs::create_directories(tmp / "closed");
  ASSERT_EQ(0, ::chmod((tmp / "closed").c_str(), folderMode));
  fs::create_directories(tmp / "open");
  ASSERT_EQ(0, ::chmod((tmp / "open").c_str(), 0755));
  qxtest::writeFile(tmp / "open" / "inner.pdf", "i");
  ASSERT_EQ(0, ::chmod((tmp / "open" / "inner.pdf").c_str(), fileMode));
  std::vector<std::string> const expected = {
      quoted("secret.pdf") + " cannot be read: Permission denied",
      quoted("closed") + " cannot be read: Permission denied",
      "\"" + (tmp / "open" / "inner.pdf").string() + "\" cannot be read: Permission denied"};
  std::vector<std::string> const paths = {at("secret.pdf"), at("closed"), at("open")};
  if (!root) {
    EXPECT_EQ(expected, qxcli::localDropProblems(paths));
    ::chmod((tmp / "closed").c_str(), 0700);  // for the fixture to remove it
    return;
  }
  // Root sees no problem at all.
  EXPECT_EQ(std::vector<std::string>{}, qxcli::localDropProblems(paths));
  qxtest::OtherUser const nobody = qxtest::otherUser();
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        if (::setgid(nobody.gid) != 0 || ::setuid(nobody.uid) != 0) std::_Exit(3);
        std::vector<std::string> const seen = qxcli::localDropProblems(paths);
        if (seen != expected) {
          for (std::string const& s : seen) std::fprintf(stderr, "seen: %s\n", s.c_str());
          std::_Exit(1);
        }
        std::_Exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(DropCheckTest, EveryRefusedTypeIsNamedWithTheRule) {
  Settings const settings(qxtest::parse(R"({"SrvFileExts":["pdf","CSV",".zip"]})"));
  qxtest::writeFile(tmp / "a.pdf", "a");
  qxtest::writeFile(tmp / "tool.EXE", "t");
  qxtest::writeFile(tmp / "README", "r");
  qxtest::writeFile(tmp / "alone.zip", "z");
  fs::create_directories(tmp / "docs" / "inner");
  qxtest::writeFile(tmp / "docs" / "b.csv", "b");
  qxtest::writeFile(tmp / "docs" / "c.zip", "c");
  qxtest::writeFile(tmp / "docs" / "d.txt", "d");
  std::vector<std::string> const paths = {at("a.pdf"), at("tool.EXE"), at("README"), at("alone.zip"), at("docs")};
  std::string const docs = (tmp / "docs").string();
  EXPECT_EQ((std::vector<std::string>{
                quoted("tool.EXE") + ": the service does not accept files of type \"exe\" (it accepts csv, pdf, zip)",
                quoted("README") + ": the service does not accept files without a type (it accepts csv, pdf, zip)",
                "\"" + docs + "/c.zip\": an archive is sent on its own, not inside a folder",
                "\"" + docs + "/d.txt\": the service does not accept files of type \"txt\" (it accepts csv, pdf, zip)"}),
            qxcli::typeDropProblems(paths, settings));
}

}  // namespace
