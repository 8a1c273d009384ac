#include "apps/svc/SystemdNotify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace qxsvc {

namespace {

// The number in text, or -1 when text is not a whole positive number.
long long positiveNumber(char const* text) {
  if (text == nullptr || *text == '\0') return -1;
  errno = 0;
  char* end = nullptr;
  long long const n = std::strtoll(text, &end, 10);
  if (errno != 0 || *end != '\0' || n <= 0) return -1;
  return n;
}

}  // namespace

SystemdNotify SystemdNotify::fromEnvironment() {
  char const* socket = std::getenv("NOTIFY_SOCKET");
  long long watchdogUsec = positiveNumber(std::getenv("WATCHDOG_USEC"));
  // The watchdog may be meant for another process (a wrapper that started
  // this one).
  long long const pid = positiveNumber(std::getenv("WATCHDOG_PID"));
  if (std::getenv("WATCHDOG_PID") != nullptr && pid != static_cast<long long>(::getpid())) watchdogUsec = -1;
  return SystemdNotify(socket ? socket : "", watchdogUsec > 0 ? watchdogUsec : 0);
}

SystemdNotify::SystemdNotify(std::string socketName, long long watchdogUsec)
    : m_socket(std::move(socketName)), m_watchdogUsec(watchdogUsec) {
  // Only an absolute path or an abstract name is a socket of the service
  // manager's.
  if (!m_socket.empty() && m_socket[0] != '/' && m_socket[0] != '@') m_socket.clear();
}

bool SystemdNotify::send(std::string const& message) const {
  if (m_socket.empty()) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (m_socket.size() >= sizeof(address.sun_path)) return false;
  std::memcpy(address.sun_path, m_socket.data(), m_socket.size());
  if (address.sun_path[0] == '@') address.sun_path[0] = '\0';  // abstract: no terminating NUL counts
  socklen_t const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_socket.size() +
                                                  (m_socket[0] == '@' ? 0 : 1));
  int const fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  ssize_t const sent = ::sendto(fd, message.data(), message.size(), MSG_NOSIGNAL,
                                reinterpret_cast<sockaddr const*>(&address), length);
  ::close(fd);
  return sent == static_cast<ssize_t>(message.size());
}

std::chrono::microseconds SystemdNotify::watchdogEvery() const {
  return active() ? std::chrono::microseconds(m_watchdogUsec / 2) : std::chrono::microseconds(0);
}

constexpr std::chrono::milliseconds NotifyHeartbeat::kStatusEvery;

NotifyHeartbeat::NotifyHeartbeat(SystemdNotify const& notify)
    : m_notify(notify), m_watchdogEvery(notify.watchdogEvery()), m_nextPing(Clock::now()) {}

NotifyHeartbeat::Clock::time_point NotifyHeartbeat::beat(std::string const& activity) {
  Clock::time_point const now = Clock::now();
  // Without a watchdog the loop need not wake for this: a minute is "never".
  Clock::time_point next = now + std::chrono::minutes(1);
  if (!m_notify.active()) return next;
  if (m_watchdogEvery.count() > 0) {
    if (now >= m_nextPing) {
      m_notify.send("WATCHDOG=1");
      m_nextPing = now + m_watchdogEvery;
    }
    next = std::min(next, m_nextPing);
  }
  if (activity != m_sentStatus) {
    if (now - m_lastStatus >= kStatusEvery) {
      m_notify.send("STATUS=" + activity);
      m_sentStatus = activity;
      m_lastStatus = now;
    } else {
      next = std::min(next, m_lastStatus + kStatusEvery);
    }
  }
  return next;
}

}  // namespace qxsvc
