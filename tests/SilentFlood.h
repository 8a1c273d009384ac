// Helper of the tests: a flood of loopback connections that never say hello,
// each opened again as soon as the service drops it, from a thread of its
// own, until the flood is destroyed. It records what the service sent on the
// connections it dropped.
//
// Made, read and destroyed on the test's thread; the flood's thread only
// reads and reopens its sockets.
#ifndef QX_TESTS_SILENTFLOOD_H
#define QX_TESTS_SILENTFLOOD_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qxtest {

// How soon a client must be answered through a flood: a second. The
// sanitizers make each accept of the service several times dearer, and a
// client waits in the backlog behind the flood's connections: their builds
// allow three.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr std::chrono::milliseconds kAnswerThroughFlood{3000};
#else
constexpr std::chrono::milliseconds kAnswerThroughFlood{1000};
#endif

// Raises this process's soft limit of open descriptors to at least need
// (children inherit it); false when the hard limit is lower and cannot be
// raised either.
inline bool raiseDescriptorLimit(rlim_t need) {
  rlimit lim{};
  if (::getrlimit(RLIMIT_NOFILE, &lim) != 0) return false;
  if (lim.rlim_cur >= need) return true;
  lim.rlim_cur = need;
  if (lim.rlim_max < need) lim.rlim_max = need;  // only a privileged process may
  return ::setrlimit(RLIMIT_NOFILE, &lim) == 0;
}

class SilentFlood {
 public:
  SilentFlood(std::uint16_t port, std::size_t count) : m_port(port), m_conns(count) {
    for (Conn& c : m_conns) open(c);
    m_thread = std::thread([this] { run(); });
  }
  ~SilentFlood() {
    m_stop = true;
    m_thread.join();
    for (Conn& c : m_conns) {
      if (c.fd >= 0) ::close(c.fd);
    }
  }
  SilentFlood(SilentFlood const&) = delete;
  SilentFlood& operator=(SilentFlood const&) = delete;

  // How many connections the service has dropped so far (each was opened
  // again at once).
  std::size_t dropped() const { return m_dropped; }
  // What the dropped connections received, each distinct text with the
  // number of connections that received it ("" for those that got nothing).
  std::map<std::string, std::size_t> received() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
  }
  // Connections that could not even be opened (no descriptor left).
  std::size_t openFailures() const { return m_openFailures; }

 private:
  struct Conn {
    int fd = -1;
    std::string got;
  };

  void open(Conn& c) {
    c.got.clear();
    c.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (c.fd < 0) {
      ++m_openFailures;
      return;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(m_port);
    // Non-blocking: a full backlog must not stall the whole flood. A connect
    // that fails later shows as an error on the socket, and it is reopened.
    if (::connect(c.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 && errno != EINPROGRESS) {
      ::close(c.fd);
      c.fd = -1;
      ++m_openFailures;
    }
  }

  void dropAndReopen(Conn& c) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      ++m_received[c.got];
    }
    ++m_dropped;
    ::close(c.fd);
    open(c);
  }

  void run() {
    std::vector<pollfd> fds(m_conns.size());
    char buf[4096];
    while (!m_stop) {
      for (std::size_t i = 0; i < m_conns.size(); ++i) {
        if (m_conns[i].fd < 0) open(m_conns[i]);
        fds[i] = pollfd{m_conns[i].fd, POLLIN, 0};
      }
      if (::poll(fds.data(), fds.size(), 20) <= 0) continue;
      for (std::size_t i = 0; i < m_conns.size(); ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0) continue;
        Conn& c = m_conns[i];
        for (;;) {
          ssize_t const n = ::recv(c.fd, buf, sizeof buf, 0);
          if (n > 0) {
            c.got.append(buf, static_cast<std::size_t>(n));
            continue;
          }
          if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
          dropAndReopen(c);  // end of stream, a reset, or a connect that failed
          break;
        }
      }
    }
  }

  std::uint16_t const m_port;
  std::atomic<bool> m_stop{false};
  std::atomic<std::size_t> m_dropped{0};
  std::atomic<std::size_t> m_openFailures{0};
  mutable std::mutex m_mutex;
  std::map<std::string, std::size_t> m_received;  // guarded by m_mutex
  std::vector<Conn> m_conns;                      // the flood's thread's, once it runs
  std::thread m_thread;
};

}  // namespace qxtest

#endif  // QX_TESTS_SILENTFLOOD_H
