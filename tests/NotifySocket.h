// The service manager's end of the notification protocol, for tests: an
// AF_UNIX datagram socket bound in a folder of the test's own, whose path a
// child gets as $NOTIFY_SOCKET (ScopedEnv), and a thread that takes every
// datagram with the time it arrived.
//
// Threads: the receiving thread is the socket's own; every member may be
// called from the test's thread. onArrival (optional) runs on the receiving
// thread as each message arrives, before it is recorded, so that it sees
// the world as it was at that moment.
#ifndef QX_TESTS_NOTIFYSOCKET_H
#define QX_TESTS_NOTIFYSOCKET_H

#include "tests/ProcessHarness.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/filesystem/path.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qxtest {

// Sets an environment variable while it lives (children started meanwhile
// inherit it), then removes it again.
class ScopedEnv {
 public:
  ScopedEnv(char const* name, std::string const& value) : m_name(name) { ::setenv(name, value.c_str(), 1); }
  ~ScopedEnv() { ::unsetenv(m_name); }
  ScopedEnv(ScopedEnv const&) = delete;
  ScopedEnv& operator=(ScopedEnv const&) = delete;

 private:
  char const* const m_name;
};

class NotifySocket {
 public:
  using Clock = std::chrono::steady_clock;
  struct Message {
    std::string text;
    Clock::time_point arrived;
  };

  explicit NotifySocket(boost::filesystem::path const& path,
                        std::function<void(std::string const&)> onArrival = nullptr)
      : m_path(path), m_onArrival(std::move(onArrival)) {
    m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
      ADD_FAILURE() << "cannot bind a datagram socket at " << path << ": " << std::strerror(errno);
      return;
    }
    m_thread = std::thread([this] { receive(); });
  }
  ~NotifySocket() {
    m_stop = true;
    if (m_thread.joinable()) m_thread.join();
    if (m_fd >= 0) ::close(m_fd);
  }
  NotifySocket(NotifySocket const&) = delete;
  NotifySocket& operator=(NotifySocket const&) = delete;

  boost::filesystem::path const& path() const { return m_path; }

  std::vector<Message> messages() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
  }
  // The texts, in the order they came.
  std::vector<std::string> texts() const {
    std::vector<std::string> all;
    for (Message const& m : messages()) all.push_back(m.text);
    return all;
  }
  // Whether text arrived (count times at least) before the deadline.
  bool waitFor(std::string const& text, std::size_t count = 1,
               std::chrono::milliseconds limit = kProcessDeadline) const {
    return qxtest::waitFor([&] {
      std::size_t seen = 0;
      for (Message const& m : messages()) seen += m.text == text ? 1 : 0;
      return seen >= count;
    }, limit);
  }

 private:
  void receive() {
    while (!m_stop) {
      pollfd p{m_fd, POLLIN, 0};
      if (::poll(&p, 1, 20) <= 0) continue;
      char buffer[4096];
      ssize_t const n = ::recv(m_fd, buffer, sizeof buffer, 0);
      if (n < 0) continue;
      Message m{std::string(buffer, static_cast<std::size_t>(n)), Clock::now()};
      if (m_onArrival) m_onArrival(m.text);
      std::lock_guard<std::mutex> lock(m_mutex);
      m_messages.push_back(std::move(m));
    }
  }

  boost::filesystem::path const m_path;
  std::function<void(std::string const&)> const m_onArrival;
  int m_fd = -1;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;

  mutable std::mutex m_mutex;
  std::vector<Message> m_messages;  // guarded by m_mutex
};

}  // namespace qxtest

#endif  // QX_TESTS_NOTIFYSOCKET_H
