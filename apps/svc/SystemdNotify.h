// Tells the service manager how the service is: ready, reloading, stopping,
// what it does (STATUS=), and that its upload loop is alive (WATCHDOG=1).
//
// It speaks the notification protocol itself instead of linking libsystemd:
// each message is one datagram to the AF_UNIX socket named by $NOTIFY_SOCKET
// (a leading '@' names an abstract socket). That is a few lines, adds no
// dependency to the service or its package, and behaves the same under a
// test's socket as under systemd. Without $NOTIFY_SOCKET every call does
// nothing, and without $WATCHDOG_USEC (or with a $WATCHDOG_PID that is not
// this process) no WATCHDOG=1 is sent.
//
// Threads: SystemdNotify::send() may be called from any thread (a datagram
// goes whole). A NotifyHeartbeat belongs to the one thread that beats it
// (the upload pipeline's loop).
#ifndef QX_APPS_SVC_SYSTEMDNOTIFY_H
#define QX_APPS_SVC_SYSTEMDNOTIFY_H

#include <chrono>
#include <string>

namespace qxsvc {

class SystemdNotify {
 public:
  // Reads $NOTIFY_SOCKET, $WATCHDOG_USEC and $WATCHDOG_PID once.
  static SystemdNotify fromEnvironment();
  // A link to socketName ("" for none); watchdogUsec 0 for no watchdog.
  SystemdNotify(std::string socketName, long long watchdogUsec);

  bool active() const { return !m_socket.empty(); }
  // Sends message ("READY=1", "STATUS=idle", several lines joined by '\n');
  // false when it could not be sent (the service goes on regardless).
  bool send(std::string const& message) const;
  // How often WATCHDOG=1 is due: half the service manager's interval, so
  // that one late ping is no failure; zero when no watchdog is asked for.
  std::chrono::microseconds watchdogEvery() const;

 private:
  std::string m_socket;
  long long m_watchdogUsec = 0;
};

// What the upload loop calls after each round: sends WATCHDOG=1 when due and
// STATUS=<activity> when the activity changed, at most every
// kStatusEvery, the last word of a burst of changes following once that has
// passed.
class NotifyHeartbeat {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kStatusEvery{250};

  explicit NotifyHeartbeat(SystemdNotify const& notify);

  // Returns when it wants to be called again at the latest.
  Clock::time_point beat(std::string const& activity);

 private:
  SystemdNotify const& m_notify;
  std::chrono::microseconds const m_watchdogEvery;
  Clock::time_point m_nextPing;
  Clock::time_point m_lastStatus{};
  std::string m_sentStatus;
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_SYSTEMDNOTIFY_H
