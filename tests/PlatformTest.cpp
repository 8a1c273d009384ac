// Tests of the platform facts: the system configuration directory for root
// and for other users, and the word that names the service.
//
// The tests run as root. The rules for other users are checked in a forked
// child that drops to an unprivileged user id, computes the directory and
// reports the verdict through its exit status (and, for the failure message,
// the directory it saw through a pipe).
#include "shared/Platform.h"
#include "shared/Service.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

// Read while this program is initialised, after the libraries it links.
std::string const g_term4SvcAtStart = Service::TERM4SVC;

constexpr uid_t kNobody = 65534;
constexpr gid_t kNoGroup = 65534;

// Exit codes of the child.
constexpr int kChildPass = 0;
constexpr int kChildWrongDir = 1;
constexpr int kChildUnexpectedException = 2;
constexpr int kChildNoException = 3;
constexpr int kChildCannotDropPrivileges = 4;

// An environment variable to set, or to remove when value is null.
struct EnvVar {
  char const* name;
  char const* value;
};

struct ChildResult {
  int exitCode = -1;    // -1 when the child did not exit normally
  std::string report;   // what the child wrote to the pipe
};

void writeAll(int fd, std::string const& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t const n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

// Forks a child that sets env, presets the directory to preset, drops to uid
// and gid, calls initSysCfgDir() and compares the directory with expected
// (or, with expectThrow, expects std::runtime_error and an unchanged empty
// directory).
ChildResult runInitAsUser(uid_t uid, gid_t gid, std::vector<EnvVar> const& env,
                          std::string const& preset, std::string const& expected,
                          bool expectThrow = false) {
  int fds[2];
  if (::pipe(fds) != 0) {
    ADD_FAILURE() << "pipe failed";
    return {};
  }
  pid_t const pid = ::fork();
  if (pid < 0) {
    ADD_FAILURE() << "fork failed";
    return {};
  }
  if (pid == 0) {
    ::close(fds[0]);
    for (EnvVar const& e : env) {
      if (e.value) {
        ::setenv(e.name, e.value, 1);
      } else {
        ::unsetenv(e.name);
      }
    }
    Platform::inst().setSysCfgDir(preset);
    if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0 ||
        ::geteuid() != uid || ::getegid() != gid) {
      writeAll(fds[1], "could not drop to the user id");
      ::_exit(kChildCannotDropPrivileges);
    }
    int code = kChildPass;
    try {
      Platform::inst().initSysCfgDir();
      std::string const dir = Platform::inst().sysCfgDir();
      writeAll(fds[1], "directory \"" + dir + "\"");
      if (expectThrow) {
        code = kChildNoException;
      } else if (dir != expected) {
        code = kChildWrongDir;
      }
    } catch (std::runtime_error const& e) {
      std::string const dir = Platform::inst().sysCfgDir();
      writeAll(fds[1], std::string("runtime_error: ") + e.what() + "; directory \"" + dir + "\"");
      code = expectThrow && dir.empty() ? kChildPass : kChildUnexpectedException;
    } catch (...) {
      writeAll(fds[1], "another exception");
      code = kChildUnexpectedException;
    }
    ::_exit(code);
  }
  ::close(fds[1]);
  ChildResult result;
  char buf[512];
  for (;;) {
    ssize_t const n = ::read(fds[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    result.report.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fds[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  return result;
}

// The home directory of uid's account, or empty when it has none.
std::string accountHome(uid_t uid) {
  passwd const* pw = ::getpwuid(uid);
  return pw && pw->pw_dir ? pw->pw_dir : "";
}

// A user id that no account holds.
uid_t uidWithoutAccount() {
  for (uid_t uid = 54321; uid < 60000; ++uid) {
    if (!::getpwuid(uid)) return uid;
  }
  return 0;
}

class PlatformAsUser : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "dropping to another user id needs root";
  }
};

// Restores the process's directory to "/etc" after a test that changed it.
struct RestoreEtc {
  RestoreEtc() = default;
  RestoreEtc(RestoreEtc const&) = delete;
  RestoreEtc& operator=(RestoreEtc const&) = delete;
  ~RestoreEtc() { Platform::inst().setSysCfgDir("/etc"); }
};

// ------------------------------------------------------------------ Platform

TEST(PlatformDeathTest, DirectoryIsEmptyUntilInitialised) {
  // The child is a fresh process: nothing has set the directory there yet.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(Platform::inst().sysCfgDir().empty() ? 0 : 1),
              testing::ExitedWithCode(0), "");
}

TEST(Platform, InstIsOneObjectForEveryThread) {
  Platform* const here = &Platform::inst();
  EXPECT_EQ(here, &Platform::inst());
  Platform* there = nullptr;
  std::thread([&] { there = &Platform::inst(); }).join();
  EXPECT_EQ(here, there);
}

// Sets or removes an environment variable for the lifetime of the object.
class ScopedEnv {
 public:
  ScopedEnv(char const* name, char const* value) : m_name(name) {
    char const* old = std::getenv(name);
    m_had = old != nullptr;
    if (m_had) m_old = old;
    if (value) {
      ::setenv(name, value, 1);
    } else {
      ::unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (m_had) {
      ::setenv(m_name.c_str(), m_old.c_str(), 1);
    } else {
      ::unsetenv(m_name.c_str());
    }
  }
  ScopedEnv(ScopedEnv const&) = delete;
  ScopedEnv& operator=(ScopedEnv const&) = delete;

 private:
  std::string m_name;
  bool m_had = false;
  std::string m_old;
};

TEST(Platform, InitAsRootGivesEtcWhateverTheEnvironmentSays) {
  if (::geteuid() != 0) GTEST_SKIP() << "this case is the root case";
  RestoreEtc const restore;
  ScopedEnv const xdg("XDG_CONFIG_HOME", "/tmp/qx-xdg");
  ScopedEnv const home("HOME", "/tmp/qx-home");
  Platform::inst().setSysCfgDir("");
  Platform::inst().initSysCfgDir();
  EXPECT_EQ("/etc", Platform::inst().sysCfgDir());
}

TEST(Platform, SetSysCfgDirSetsTheDirectory) {
  RestoreEtc const restore;
  Platform::inst().setSysCfgDir("/srv/qx/config");
  EXPECT_EQ("/srv/qx/config", Platform::inst().sysCfgDir());
  Platform::inst().setSysCfgDir("relative/dir");
  EXPECT_EQ("relative/dir", Platform::inst().sysCfgDir());
}

TEST(Platform, InitKeepsADirectoryAlreadySet) {
  RestoreEtc const restore;
  Platform::inst().setSysCfgDir("/srv/qx/config");
  Platform::inst().initSysCfgDir();
  EXPECT_EQ("/srv/qx/config", Platform::inst().sysCfgDir());
}

TEST(Platform, InitAfterInitKeepsTheFirstResult) {
  if (::geteuid() != 0) GTEST_SKIP() << "this case is the root case";
  RestoreEtc const restore;
  Platform::inst().setSysCfgDir("");
  Platform::inst().initSysCfgDir();
  Platform::inst().initSysCfgDir();
  EXPECT_EQ("/etc", Platform::inst().sysCfgDir());
}

TEST(Platform, ConcurrentSetAndReadSeeWholeValues) {
  RestoreEtc const restore;
  std::string const first(100, 'a');
  std::string const second(200, 'b');
  Platform::inst().setSysCfgDir(first);
  std::thread setter([&] {
    for (int i = 0; i < 20000; ++i) Platform::inst().setSysCfgDir(i % 2 ? first : second);
  });
  int torn = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string const seen = Platform::inst().sysCfgDir();
    if (seen != first && seen != second) ++torn;
  }
  setter.join();
  EXPECT_EQ(0, torn);
}

TEST_F(PlatformAsUser, AbsoluteXdgConfigHomeWins) {
  ChildResult const r = runInitAsUser(
      kNobody, kNoGroup, {{"XDG_CONFIG_HOME", "/tmp/qx-xdg"}, {"HOME", "/tmp/qx-home"}}, "",
      "/tmp/qx-xdg");
  EXPECT_EQ(kChildPass, r.exitCode) << r.report;
}

TEST_F(PlatformAsUser, HomeConfigWhenXdgConfigHomeIsUnset) {
  ChildResult const r = runInitAsUser(
      kNobody, kNoGroup, {{"XDG_CONFIG_HOME", nullptr}, {"HOME", "/tmp/qx-home"}}, "",
      "/tmp/qx-home/.config");
  EXPECT_EQ(kChildPass, r.exitCode) << r.report;
}

TEST_F(PlatformAsUser, RelativeOrEmptyXdgConfigHomeIsIgnored) {
  for (char const* xdg : {"relative/cfg", "", "~/cfg"}) {
    ChildResult const r = runInitAsUser(
        kNobody, kNoGroup, {{"XDG_CONFIG_HOME", xdg}, {"HOME", "/tmp/qx-home"}}, "",
        "/tmp/qx-home/.config");
    EXPECT_EQ(kChildPass, r.exitCode) << "XDG_CONFIG_HOME=\"" << xdg << "\": " << r.report;
  }
}

TEST_F(PlatformAsUser, AccountHomeWhenNeitherVariableIsUsable) {
  std::string const home = accountHome(kNobody);
  if (home.empty() || home[0] != '/') GTEST_SKIP() << "user id 65534 has no absolute home";
  struct Case {
    char const* name;
    std::vector<EnvVar> env;
  };
  Case const cases[] = {
      {"both unset", {{"XDG_CONFIG_HOME", nullptr}, {"HOME", nullptr}}},
      {"relative HOME", {{"XDG_CONFIG_HOME", nullptr}, {"HOME", "home/user"}}},
      {"empty HOME", {{"XDG_CONFIG_HOME", "cfg"}, {"HOME", ""}}},
  };
  for (Case const& c : cases) {
    ChildResult const r = runInitAsUser(kNobody, kNoGroup, c.env, "", home + "/.config");
    EXPECT_EQ(kChildPass, r.exitCode) << c.name << ": " << r.report;
  }
}

TEST_F(PlatformAsUser, UserWithoutAccountOrVariablesThrows) {
  uid_t const uid = uidWithoutAccount();
  ASSERT_NE(0u, uid) << "no free user id found";
  ChildResult const r = runInitAsUser(
      uid, kNoGroup, {{"XDG_CONFIG_HOME", nullptr}, {"HOME", nullptr}}, "", "", true);
  EXPECT_EQ(kChildPass, r.exitCode) << r.report;
}

TEST_F(PlatformAsUser, UserWithoutAccountUsesTheVariables) {
  uid_t const uid = uidWithoutAccount();
  ASSERT_NE(0u, uid) << "no free user id found";
  ChildResult const xdg = runInitAsUser(
      uid, kNoGroup, {{"XDG_CONFIG_HOME", "/tmp/qx-xdg"}, {"HOME", nullptr}}, "", "/tmp/qx-xdg");
  EXPECT_EQ(kChildPass, xdg.exitCode) << xdg.report;
  ChildResult const home = runInitAsUser(
      uid, kNoGroup, {{"XDG_CONFIG_HOME", nullptr}, {"HOME", "/tmp/qx-home"}}, "",
      "/tmp/qx-home/.config");
  EXPECT_EQ(kChildPass, home.exitCode) << home.report;
}

TEST_F(PlatformAsUser, InitKeepsADirectoryAlreadySet) {
  ChildResult const r = runInitAsUser(
      kNobody, kNoGroup, {{"XDG_CONFIG_HOME", "/tmp/qx-xdg"}, {"HOME", "/tmp/qx-home"}},
      "/srv/preset", "/srv/preset");
  EXPECT_EQ(kChildPass, r.exitCode) << r.report;
}

TEST_F(PlatformAsUser, ChildReportsAWrongDirectory) {
  // The check itself must be able to fail: a wrong expectation is reported.
  ChildResult const r = runInitAsUser(
      kNobody, kNoGroup, {{"XDG_CONFIG_HOME", "/tmp/qx-xdg"}, {"HOME", "/tmp/qx-home"}}, "",
      "/etc");
  EXPECT_EQ(kChildWrongDir, r.exitCode) << r.report;
  EXPECT_EQ("directory \"/tmp/qx-xdg\"", r.report);
}

// ------------------------------------------------------------------- Service

TEST(Service, Term4SvcIsService) { EXPECT_EQ("service", Service::TERM4SVC); }

TEST(Service, Term4SvcIsSetBeforeProgramsThatLinkTheLibraryStart) {
  EXPECT_EQ("service", g_term4SvcAtStart);
}

}  // namespace
