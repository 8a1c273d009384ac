// The notification link to the service manager, in process: where its
// datagrams go (a path, an abstract name, nowhere), which environment asks
// for a watchdog, and how the heartbeat paces WATCHDOG=1 and STATUS= lines.
#include "apps/svc/SystemdNotify.h"
#include "tests/NotifySocket.h"
#include "tests/TestUtil.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using qxsvc::NotifyHeartbeat;
using qxsvc::SystemdNotify;
using std::chrono::microseconds;
using std::chrono::milliseconds;

// A datagram socket bound to an abstract name, read without waiting.
class AbstractSocket {
 public:
  explicit AbstractSocket(std::string const& name) {
    m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());  // sun_path[0] stays NUL
    socklen_t const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (::bind(m_fd, reinterpret_cast<sockaddr const*>(&address), length) != 0) {
      ADD_FAILURE() << "cannot bind the abstract socket " << name << ": " << std::strerror(errno);
    }
  }
  ~AbstractSocket() { ::close(m_fd); }
  AbstractSocket(AbstractSocket const&) = delete;
  AbstractSocket& operator=(AbstractSocket const&) = delete;

  // The next datagram, or "" when none waits.
  std::string next() {
    char buffer[512];
    ssize_t const n = ::recv(m_fd, buffer, sizeof buffer, 0);
    return n < 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(n));
  }

 private:
  int m_fd = -1;
};

TEST(SystemdNotify, SendsToAPathSocket) {
  qxtest::TempDir tmp;
  qxtest::NotifySocket socket(tmp / "notify.sock");
  SystemdNotify const notify((tmp / "notify.sock").string(), 0);
  EXPECT_TRUE(notify.active());
  EXPECT_TRUE(notify.send("READY=1"));
  EXPECT_TRUE(notify.send("STATUS=uploading 3, 12 queued"));
  ASSERT_TRUE(qxtest::waitFor([&] { return socket.texts().size() == 2; }));
  EXPECT_EQ((std::vector<std::string>{"READY=1", "STATUS=uploading 3, 12 queued"}), socket.texts());
}

TEST(SystemdNotify, AnAtSignNamesAnAbstractSocket) {
  std::string const name = "qxtest-notify-" + std::to_string(::getpid());
  AbstractSocket socket(name);
  SystemdNotify const notify("@" + name, 0);
  EXPECT_TRUE(notify.send("STOPPING=1"));
  EXPECT_EQ("STOPPING=1", socket.next());
  EXPECT_EQ("", socket.next());
}

TEST(SystemdNotify, WithoutAUsableSocketNothingIsSent) {
  qxtest::TempDir tmp;
  struct Case {
    std::string socket;
  };
  Case const cases[] = {{""}, {"relative/notify.sock"}, {(tmp / "nobody-listens.sock").string()},
                        {"/" + std::string(200, 'x')}};
  for (Case const& c : cases) {
    SystemdNotify const notify(c.socket, 1000000);
    EXPECT_FALSE(notify.send("READY=1")) << "socket \"" << c.socket << "\"";
  }
  EXPECT_FALSE(SystemdNotify("", 1000000).active());
  EXPECT_FALSE(SystemdNotify("relative/notify.sock", 1000000).active());
  EXPECT_EQ(microseconds(0), SystemdNotify("", 1000000).watchdogEvery());
}

TEST(SystemdNotify, TheEnvironmentSaysWhetherAWatchdogIsAskedFor) {
  std::string const self = std::to_string(::getpid());
  struct Case {
    char const* usec;  // nullptr: unset
    std::string pid;   // "": unset
    long long every;   // microseconds
  };
  Case const cases[] = {
      {"1000000", "", 500000},        {"1000000", self, 500000}, {"1000000", "1", 0},
      {"1000000", "not a pid", 0},    {nullptr, "", 0},          {"0", "", 0},
      {"-5", "", 0},                  {"12abc", "", 0},          {"", "", 0},
      {"30000000", self, 15000000},
  };
  qxtest::ScopedEnv const socket("NOTIFY_SOCKET", "/run/systemd/notify");
  for (Case const& c : cases) {
    if (c.usec) ::setenv("WATCHDOG_USEC", c.usec, 1);
    if (!c.pid.empty()) ::setenv("WATCHDOG_PID", c.pid.c_str(), 1);
    EXPECT_EQ(microseconds(c.every), SystemdNotify::fromEnvironment().watchdogEvery())
        << "WATCHDOG_USEC=" << (c.usec ? c.usec : "(unset)") << " WATCHDOG_PID=" << c.pid;
    ::unsetenv("WATCHDOG_USEC");
    ::unsetenv("WATCHDOG_PID");
  }
}

TEST(NotifyHeartbeat, StatusLinesComeWhenTheyChangeAtMostFourTimesASecondTheLastOneFollowing) {
  qxtest::TempDir tmp;
  qxtest::NotifySocket socket(tmp / "notify.sock");
  SystemdNotify const notify((tmp / "notify.sock").string(), 0);
  NotifyHeartbeat heartbeat(notify);
  auto const start = NotifyHeartbeat::Clock::now();
  heartbeat.beat("idle");
  heartbeat.beat("idle");
  // A burst of changes within the quarter second: only the last one is sent,
  // once it has passed, and the heartbeat asks to be called then.
  auto const due = heartbeat.beat("uploading 1");
  EXPECT_LE(due, start + NotifyHeartbeat::kStatusEvery + milliseconds(50));
  heartbeat.beat("uploading 2");
  bool const beforeDue = NotifyHeartbeat::Clock::now() < due;  // a slow machine may have passed it
  ASSERT_TRUE(qxtest::waitFor([&] { return !socket.texts().empty(); }));
  std::this_thread::sleep_for(milliseconds(20));
  if (beforeDue && NotifyHeartbeat::Clock::now() < due) {
    EXPECT_EQ((std::vector<std::string>{"STATUS=idle"}), socket.texts());
  }
  std::this_thread::sleep_until(due);
  heartbeat.beat("uploading 2");
  heartbeat.beat("uploading 2");
  ASSERT_TRUE(qxtest::waitFor([&] { return socket.texts().size() == 2; }));
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ((std::vector<std::string>{"STATUS=idle", "STATUS=uploading 2"}), socket.texts());
}

TEST(NotifyHeartbeat, WatchdogPingsComeOncePerHalfIntervalHoweverOftenItBeats) {
  qxtest::TempDir tmp;
  qxtest::NotifySocket socket(tmp / "notify.sock");
  SystemdNotify const notify((tmp / "notify.sock").string(), 400000);  // 400 ms: a ping every 200 ms
  NotifyHeartbeat heartbeat(notify);
  auto const start = NotifyHeartbeat::Clock::now();
  auto const first = heartbeat.beat("idle");
  EXPECT_GE(first, start + milliseconds(200));
  EXPECT_LE(first, start + milliseconds(250));
  // Beaten every millisecond for a second: five or six pings, not a thousand.
  while (NotifyHeartbeat::Clock::now() < start + milliseconds(1000)) {
    heartbeat.beat("idle");
    std::this_thread::sleep_for(milliseconds(1));
  }
  std::this_thread::sleep_for(milliseconds(50));
  std::vector<std::string> pings;
  for (std::string const& t : socket.texts()) {
    if (t == "WATCHDOG=1") pings.push_back(t);
  }
  // Five or six (at 0, 200, ... ms); four when the machine held the test up.
  EXPECT_GE(pings.size(), 4u);
  EXPECT_LE(pings.size(), 6u);
  EXPECT_EQ("STATUS=idle", socket.texts()[1]);
}

TEST(NotifyHeartbeat, WithoutASocketItAsksForNoWakeUps) {
  SystemdNotify const notify("", 400000);
  NotifyHeartbeat heartbeat(notify);
  auto const start = NotifyHeartbeat::Clock::now();
  EXPECT_GE(heartbeat.beat("idle"), start + std::chrono::seconds(59));
  EXPECT_GE(heartbeat.beat("uploading 1"), start + std::chrono::seconds(59));
}

}  // namespace
