// HeldPort: a loopback port that the test holds, so that a program it starts
// can be given a port number that nothing else on the machine takes
// meanwhile (release() just before the program binds it), or that refuses
// connections.
//
// One thread: the test's.
#ifndef QX_TESTS_HELDPORT_H
#define QX_TESTS_HELDPORT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

namespace qxtest {

// A TCP socket bound to a loopback port of the system's choice, listening
// when backlog > 0: its descriptor (with *port set), or -1 after a test
// failure that says why.
inline int boundLoopbackSocket(std::uint16_t* port, int backlog = 0) {
  int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      (backlog > 0 && ::listen(fd, backlog) != 0) ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    ADD_FAILURE() << "cannot bind a loopback port: " << std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return -1;
  }
  *port = ntohs(addr.sin_port);
  return fd;
}

// A loopback socket bound to a port of the system's choice and never
// listening: connections to the port are refused, and nothing else can bind
// it, for as long as the object lives.
class HeldPort {
 public:
  HeldPort() : m_fd(boundLoopbackSocket(&m_port)) {}
  ~HeldPort() { release(); }
  HeldPort(HeldPort const&) = delete;
  HeldPort& operator=(HeldPort const&) = delete;

  std::uint16_t port() const { return m_port; }
  std::string text() const { return std::to_string(m_port); }
  // Frees the port (for a process that is to bind it next).
  void release() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
  }

 private:
  std::uint16_t m_port = 0;  // before m_fd, which sets it
  int m_fd = -1;
};

}  // namespace qxtest

#endif  // QX_TESTS_HELDPORT_H
