// Helper of the tests: a blocking loopback TCP socket, for a peer that
// speaks the IPC byte layout itself. Its reads and writes give up after 30 s,
// so that a transport that stops answering fails the test instead of
// hanging it.
#ifndef QX_TESTS_RAWSOCKET_H
#define QX_TESTS_RAWSOCKET_H

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

namespace qxtest {

class RawSocket {
 public:
  RawSocket() = default;
  explicit RawSocket(int fd) : m_fd(fd) {
    if (m_fd < 0) return;
    timeval tv{};
    tv.tv_sec = 30;
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  }
  RawSocket(RawSocket&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
  RawSocket& operator=(RawSocket&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~RawSocket() { close(); }

  // A connection to 127.0.0.1:port; an invalid socket, and a test failure,
  // when it cannot be made.
  static RawSocket connectTo(std::uint16_t port) {
    RawSocket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = loopback(port);
    if (::connect(s.m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      ADD_FAILURE() << "cannot connect to port " << port << ": " << std::strerror(errno);
      s.close();
    }
    return s;
  }

  // A listening socket on 127.0.0.1 with a port the system chooses.
  static RawSocket listenLoopback(std::uint16_t& port) {
    RawSocket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    if (::bind(s.m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(s.m_fd, 4) != 0 ||
        ::getsockname(s.m_fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      s.close();
      return s;
    }
    port = ntohs(addr.sin_port);
    return s;
  }

  RawSocket accept() const { return RawSocket(::accept(m_fd, nullptr, nullptr)); }

  bool valid() const { return m_fd >= 0; }
  int fd() const { return m_fd; }

  std::uint16_t localPort() const {
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
    return ntohs(addr.sin_port);
  }

  // Writes all of data; false, and a test failure, when it cannot.
  bool send(std::string const& data) const {
    for (std::size_t done = 0; done < data.size();) {
      ssize_t const n = ::send(m_fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        ADD_FAILURE() << "raw send failed: " << std::strerror(errno);
        return false;
      }
      done += static_cast<std::size_t>(n);
    }
    return true;
  }

  // Exactly n bytes, or fewer when the stream ends, fails or stands still.
  std::string read(std::size_t n) const {
    std::string out;
    char buf[65536];
    while (out.size() < n) {
      ssize_t const got = ::recv(m_fd, buf, std::min(sizeof buf, n - out.size()), 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      out.append(buf, static_cast<std::size_t>(got));
    }
    return out;
  }

  // Reads exactly n bytes into out; false when fewer came.
  bool readExactly(std::size_t n, std::string& out) const {
    out = read(n);
    return out.size() == n;
  }

  struct Rest {
    std::string data;
    std::string end;  // "end of stream", "reset" or "no end"
  };
  // Everything until the peer ends the stream.
  Rest readToEnd() const {
    Rest rest;
    char buf[4096];
    for (;;) {
      ssize_t const got = ::recv(m_fd, buf, sizeof buf, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got == 0) {
        rest.end = "end of stream";
        return rest;
      }
      if (got < 0) {
        rest.end = errno == ECONNRESET ? "reset" : "no end";
        return rest;
      }
      rest.data.append(buf, static_cast<std::size_t>(got));
    }
  }

  void shutdownSend() const { ::shutdown(m_fd, SHUT_WR); }

  void close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
  }

 private:
  static sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
  }

  int m_fd = -1;
};

}  // namespace qxtest

#endif  // QX_TESTS_RAWSOCKET_H
