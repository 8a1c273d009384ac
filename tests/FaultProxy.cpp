#include "tests/FaultProxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <deque>
#include <list>
#include <stdexcept>
#include <utility>

namespace qxtest {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxHeadBytes = 64 * 1024;
// What one direction of a connection holds before it stops reading.
constexpr std::size_t kBufferLimit = 256 * 1024;
constexpr std::size_t kMaxChunkLine = 4096;
// How long a client may go on sending after the proxy answered and closed.
constexpr std::chrono::seconds kDrainTime{5};

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string trimmed(std::string const& text) {
  std::size_t const first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// The start line and header fields of a request or an answer.
struct MessageHead {
  std::string startLine;
  std::vector<std::pair<std::string, std::string>> fields;  // names in lower case

  std::string field(std::string const& name) const {
    for (auto const& [key, value] : fields) {
      if (key == name) return value;
    }
    return "";
  }
  bool has(std::string const& name) const {
    return std::any_of(fields.begin(), fields.end(),
                       [&](auto const& field) { return field.first == name; });
  }
};

// text: the head up to and with its empty line.
bool parseHead(std::string const& text, MessageHead& head) {
  std::size_t lineStart = 0;
  bool first = true;
  for (;;) {
    std::size_t const end = text.find('\n', lineStart);
    if (end == std::string::npos) return false;
    std::string line = text.substr(lineStart, end - lineStart);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lineStart = end + 1;
    if (first) {
      if (line.empty()) return false;
      head.startLine = line;
      first = false;
      continue;
    }
    if (line.empty()) return true;
    std::size_t const colon = line.find(':');
    if (colon == std::string::npos || colon == 0) return false;
    head.fields.emplace_back(lowerCase(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
  }
}

// Where the body of a message ends, found by scanning the bytes that go by.
class BodyFraming {
 public:
  enum class Mode { None, Length, Chunked, UntilClose };

  void start(Mode mode, std::uint64_t length = 0) {
    m_mode = mode;
    m_remaining = length;
    m_chunk = ChunkPart::SizeLine;
    m_line.clear();
    m_done = mode == Mode::None || (mode == Mode::Length && length == 0);
    m_broken = false;
  }

  // Of the n bytes at data, how many belong to the body (all up to its end).
  std::size_t scan(char const* data, std::size_t n) {
    if (m_done || m_broken) return 0;
    switch (m_mode) {
      case Mode::None:
        return 0;
      case Mode::UntilClose:
        return n;
      case Mode::Length: {
        std::size_t const taken = static_cast<std::size_t>(std::min<std::uint64_t>(n, m_remaining));
        m_remaining -= taken;
        m_done = m_remaining == 0;
        return taken;
      }
      case Mode::Chunked:
        return scanChunked(data, n);
    }
    return 0;
  }

  bool done() const { return m_done; }
  // The body does not follow the chunked form: the connection cannot go on.
  bool broken() const { return m_broken; }
  // The server's end of the stream ends the body.
  void endOfStream() {
    if (m_mode == Mode::UntilClose) m_done = true;
  }

 private:
  enum class ChunkPart { SizeLine, Data, DataEnd, Trailer };

  std::size_t scanChunked(char const* data, std::size_t n) {
    std::size_t used = 0;
    while (used < n && !m_done && !m_broken) {
      if (m_chunk == ChunkPart::Data) {
        std::size_t const taken =
            static_cast<std::size_t>(std::min<std::uint64_t>(n - used, m_remaining));
        used += taken;
        m_remaining -= taken;
        if (m_remaining == 0) m_chunk = ChunkPart::DataEnd;
        continue;
      }
      char const c = data[used++];
      if (c != '\n') {
        if (m_line.size() >= kMaxChunkLine) m_broken = true;
        m_line += c;
        continue;
      }
      std::string const line = trimmed(m_line);
      m_line.clear();
      switch (m_chunk) {
        case ChunkPart::SizeLine:
          if (!readChunkSize(line)) {
            m_broken = true;
          } else {
            m_chunk = m_remaining == 0 ? ChunkPart::Trailer : ChunkPart::Data;
          }
          break;
        case ChunkPart::DataEnd:
          if (!line.empty()) m_broken = true;
          m_chunk = ChunkPart::SizeLine;
          break;
        case ChunkPart::Trailer:
          if (line.empty()) m_done = true;
          break;
        case ChunkPart::Data:
          break;
      }
    }
    return used;
  }

  bool readChunkSize(std::string const& line) {
    std::string const digits = line.substr(0, line.find(';'));
    if (digits.empty() || digits.size() > 15) return false;
    m_remaining = 0;
    for (char const c : digits) {
      int const value = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                        : (c >= 'a' && c <= 'f')                  ? c - 'a' + 10
                        : (c >= 'A' && c <= 'F')                  ? c - 'A' + 10
                                                                  : -1;
      if (value < 0) return false;
      m_remaining = m_remaining * 16 + static_cast<std::uint64_t>(value);
    }
    return true;
  }

  Mode m_mode = Mode::None;
  std::uint64_t m_remaining = 0;
  ChunkPart m_chunk = ChunkPart::SizeLine;
  std::string m_line;
  bool m_done = true;
  bool m_broken = false;
};

// A Content-Length value; false when it is not a plain decimal number.
bool readLength(std::string const& text, std::uint64_t& length) {
  if (text.empty() || text.size() > 19) return false;
  length = 0;
  for (char const c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    length = length * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return true;
}

void setNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

// Closes with a reset instead of an orderly end.
void closeWithReset(int fd) {
  linger const abort{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  ::close(fd);
}

int connectTo(std::string const& host, std::uint16_t port) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return -1;
  int fd = -1;
  for (addrinfo* at = found; at != nullptr && fd < 0; at = at->ai_next) {
    fd = ::socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC, at->ai_protocol);
    if (fd >= 0 && ::connect(fd, at->ai_addr, at->ai_addrlen) != 0) {
      ::close(fd);
      fd = -1;
    }
  }
  ::freeaddrinfo(found);
  if (fd >= 0) setNonBlocking(fd);
  return fd;
}

std::string answerAndClose(std::string const& status) {
  std::string const body = status + "\n";
  return "HTTP/1.1 " + status + "\r\nContent-Type: text/plain\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

}  // namespace

// The proxy's thread: a poll() loop over the listening socket, the stop
// signal and both sockets of every connection.
class FaultProxy::Loop {
 public:
  explicit Loop(FaultProxy& proxy) : m_proxy(proxy) {}
  Loop(Loop const&) = delete;
  Loop& operator=(Loop const&) = delete;
  ~Loop() {
    for (Connection& c : m_connections) closeConnection(c, false);
  }

  void run() {
    for (;;) {
      std::vector<pollfd> fds;
      fds.push_back({m_proxy.m_wakeFd, POLLIN, 0});
      fds.push_back({m_proxy.m_listenFd, POLLIN, 0});
      for (Connection& c : m_connections) {
        c.clientIndex = addPoll(fds, c.client, c.clientWants());
        c.upstreamIndex = addPoll(fds, c.upstream, c.upstreamWants());
      }
      if (::poll(fds.data(), fds.size(), timeoutMs()) < 0 && errno != EINTR) return;
      if (fds[0].revents != 0) return;
      if (fds[1].revents & POLLIN) acceptClient();
      for (Connection& c : m_connections) {
        if (c.clientIndex >= 0) handleClientEvents(c, fds[c.clientIndex].revents);
        if (c.upstreamIndex >= 0 && c.upstream >= 0) {
          handleUpstreamEvents(c, fds[c.upstreamIndex].revents);
        }
        advance(c);
      }
      m_connections.remove_if([](Connection const& c) { return c.state == State::Closed; });
    }
  }

 private:
  // The life of a connection; advance() makes every transition.
  enum class State {
    Relaying,           // requests and answers go through
    ClosingAfterAnswer, // the proxy's own answer goes out, then the client's end closes
    Draining,           // the answer went out; what the client still sends is dropped
    ResetPending,       // the cut request's bytes go out, then both connections reset
    Closed,
  };
  // Where the stream of one direction is, message by message.
  enum class MessagePart { Head, HeadReady, Body };

  struct Pending {  // a forwarded request whose answer has not begun
    std::string method;
    Fault fault;
  };

  struct Connection {
    int client = -1;
    int upstream = -1;
    State state = State::Relaying;
    std::string fromClient, toUpstream, fromUpstream, toClient;
    bool clientEnded = false, upstreamEnded = false, upstreamWriteShut = false;
    int clientIndex = -1, upstreamIndex = -1;
    Clock::time_point drainUntil;

    // The request in progress.
    MessagePart requestPart = MessagePart::Head;
    std::size_t headSize = 0;
    std::string method, pathKey;
    Fault fault;
    BodyFraming requestBody;
    std::uint64_t bodySent = 0;
    Clock::time_point bodyStart, holdUntil;
    bool stalled = false;
    std::deque<Pending> pending;

    // The answer in progress.
    MessagePart answerPart = MessagePart::Head;
    BodyFraming answerBody;
    bool answerHeld = false;
    Clock::time_point answerHoldUntil;

    short clientWants() const {
      short events = 0;
      if (!clientEnded && fromClient.size() < kBufferLimit) events |= POLLIN;
      if (!toClient.empty()) events |= POLLOUT;
      return events;
    }
    short upstreamWants() const {
      short events = 0;
      if (!upstreamEnded && fromUpstream.size() < kBufferLimit) events |= POLLIN;
      if (!toUpstream.empty()) events |= POLLOUT;
      return events;
    }
  };

  // A socket that wants nothing is left out: poll() would report its hang-up
  // over and over.
  static int addPoll(std::vector<pollfd>& fds, int fd, short events) {
    if (fd < 0 || events == 0) return -1;
    fds.push_back({fd, events, 0});
    return static_cast<int>(fds.size() - 1);
  }

  int timeoutMs() const {
    Clock::time_point const now = Clock::now();
    Clock::time_point next = Clock::time_point::max();
    for (Connection const& c : m_connections) {
      if (c.state == State::Draining) next = std::min(next, c.drainUntil);
      if (c.state == State::Relaying && c.holdUntil > now) next = std::min(next, c.holdUntil);
      if (c.state == State::Relaying && c.answerHeld) next = std::min(next, c.answerHoldUntil);
    }
    if (next == Clock::time_point::max()) return -1;
    auto const wait = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::max<long long>(1, wait + 1));
  }

  void acceptClient() {
    int const client = ::accept4(m_proxy.m_listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client < 0) return;
    Connection& c = m_connections.emplace_back();
    c.client = client;
    c.upstream = connectTo(m_proxy.m_upstreamHost, m_proxy.m_upstreamPort);
    if (c.upstream < 0) {
      c.toClient = answerAndClose("502 Bad Gateway");
      c.upstreamEnded = true;
      c.state = State::ClosingAfterAnswer;
    }
  }

  // Reads what fd has into buffer, up to the limit; false at its end or on an error.
  static bool readInto(int fd, std::string& buffer) {
    char chunk[65536];
    while (buffer.size() < kBufferLimit) {
      ssize_t const got = ::recv(fd, chunk, sizeof chunk, 0);
      if (got > 0) {
        buffer.append(chunk, static_cast<std::size_t>(got));
        continue;
      }
      if (got < 0 && errno == EINTR) continue;
      return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
    return true;
  }

  // Writes what fd takes from buffer; false on an error.
  static bool writeFrom(int fd, std::string& buffer) {
    while (!buffer.empty()) {
      ssize_t const sent = ::send(fd, buffer.data(), buffer.size(), MSG_NOSIGNAL);
      if (sent > 0) {
        buffer.erase(0, static_cast<std::size_t>(sent));
        continue;
      }
      if (sent < 0 && errno == EINTR) continue;
      return sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
    return true;
  }

  void handleClientEvents(Connection& c, short revents) {
    if (c.state == State::Closed || revents == 0) return;
    if (revents & (POLLIN | POLLHUP | POLLERR)) {
      if (!c.clientEnded && !readInto(c.client, c.fromClient)) c.clientEnded = true;
    }
    if ((revents & POLLOUT) && !writeFrom(c.client, c.toClient)) closeConnection(c, false);
  }

  void handleUpstreamEvents(Connection& c, short revents) {
    if (c.state == State::Closed || revents == 0) return;
    if (revents & (POLLIN | POLLHUP | POLLERR)) {
      if (!c.upstreamEnded && !readInto(c.upstream, c.fromUpstream)) c.upstreamEnded = true;
    }
    if ((revents & POLLOUT) && !writeFrom(c.upstream, c.toUpstream)) closeConnection(c, false);
  }

  void advance(Connection& c) {
    switch (c.state) {
      case State::Relaying:
        relayRequests(c);
        if (c.state == State::Relaying) relayAnswers(c);
        if (c.state == State::Relaying) endIfDone(c);
        break;
      case State::ClosingAfterAnswer:
        if (c.toClient.empty()) {
          ::shutdown(c.client, SHUT_WR);
          c.drainUntil = Clock::now() + kDrainTime;
          c.state = State::Draining;
        }
        break;
      case State::Draining:
        c.fromClient.clear();
        if (c.clientEnded || Clock::now() >= c.drainUntil) closeConnection(c, false);
        break;
      case State::ResetPending:
        if (c.toUpstream.empty()) closeConnection(c, true);
        break;
      case State::Closed:
        break;
    }
  }

  void relayRequests(Connection& c) {
    while (c.state == State::Relaying) {
      if (c.requestPart == MessagePart::Head && !takeRequestHead(c)) return;
      if (c.requestPart == MessagePart::HeadReady && !forwardRequestHead(c)) return;
      if (c.requestPart == MessagePart::Body && !forwardRequestBody(c)) return;
    }
  }

  // Parses the next request's head and asks the policy; false until a whole head is there.
  bool takeRequestHead(Connection& c) {
    std::size_t const end = c.fromClient.find("\r\n\r\n");
    if (end == std::string::npos) {
      if (c.fromClient.size() > kMaxHeadBytes) closeConnection(c, false);
      return false;
    }
    MessageHead head;
    c.headSize = end + 4;
    std::uint64_t length = 0;
    if (!parseHead(c.fromClient.substr(0, c.headSize), head)) return refuse(c);
    std::size_t const firstSpace = head.startLine.find(' ');
    std::size_t const secondSpace = head.startLine.find(' ', firstSpace + 1);
    if (firstSpace == std::string::npos || secondSpace == std::string::npos) return refuse(c);
    c.method = head.startLine.substr(0, firstSpace);
    std::string const target = head.startLine.substr(firstSpace + 1, secondSpace - firstSpace - 1);
    c.pathKey = target.substr(0, target.find('?'));
    if (lowerCase(head.field("transfer-encoding")).find("chunked") != std::string::npos) {
      c.requestBody.start(BodyFraming::Mode::Chunked);
    } else if (head.has("content-length")) {
      if (!readLength(head.field("content-length"), length)) return refuse(c);
      c.requestBody.start(BodyFraming::Mode::Length, length);
    } else {
      c.requestBody.start(BodyFraming::Mode::None);
    }

    FaultPolicy policy;
    {
      std::lock_guard<std::mutex> lock(m_proxy.m_mutex);
      policy = m_proxy.m_policy;
    }
    c.fault = policy ? policy(c.method, target) : Fault::pass();
    {
      std::lock_guard<std::mutex> lock(m_proxy.m_mutex);
      m_proxy.m_requests.push_back({c.method, target, c.fault.kind});
    }
    c.bodySent = 0;
    c.stalled = false;
    if (c.fault.kind == Fault::Kind::Answer503) {
      c.toClient += answerAndClose("503 Service Unavailable");
      c.state = State::ClosingAfterAnswer;
      closeUpstream(c);
      return false;
    }
    if (c.fault.kind == Fault::Kind::Stall && c.fault.bodyBytes == 0) {
      c.holdUntil = Clock::now() + c.fault.duration;
      c.stalled = true;
    }
    c.requestPart = MessagePart::HeadReady;
    return true;
  }

  bool refuse(Connection& c) {
    c.toClient += answerAndClose("400 Bad Request");
    c.state = State::ClosingAfterAnswer;
    closeUpstream(c);
    return false;
  }

  bool forwardRequestHead(Connection& c) {
    Clock::time_point const now = Clock::now();
    if (now < c.holdUntil || c.toUpstream.size() >= kBufferLimit) return false;
    c.toUpstream.append(c.fromClient, 0, c.headSize);
    c.fromClient.erase(0, c.headSize);
    c.pending.push_back({c.method, c.fault});
    {
      std::lock_guard<std::mutex> lock(m_proxy.m_mutex);
      m_proxy.m_bodyBytes[c.pathKey];  // every path that reached the server is counted, if only 0
    }
    c.bodyStart = now;
    c.requestPart = MessagePart::Body;
    if (c.fault.kind == Fault::Kind::ResetAfterBytes && c.fault.bodyBytes == 0 &&
        !c.requestBody.done()) {
      c.state = State::ResetPending;
      return false;
    }
    return true;
  }

  // The body bytes the fault lets through now; sets holdUntil when it is none for a while.
  std::uint64_t allowance(Connection& c, Clock::time_point now) {
    Fault const& f = c.fault;
    switch (f.kind) {
      case Fault::Kind::ResetAfterBytes:
        return f.bodyBytes - c.bodySent;
      case Fault::Kind::Stall:
        return c.stalled ? UINT64_MAX : f.bodyBytes - c.bodySent;
      case Fault::Kind::Throttle: {
        if (f.bytesPerSecond == 0) return UINT64_MAX;
        double const seconds = std::chrono::duration<double>(now - c.bodyStart).count();
        // A twentieth of a second's worth at a time, so the loop wakes 20 times a second.
        std::uint64_t const step = std::max<std::uint64_t>(1, f.bytesPerSecond / 20);
        auto const earned = static_cast<std::uint64_t>(seconds * static_cast<double>(f.bytesPerSecond));
        if (earned >= c.bodySent + step) return earned - c.bodySent;
        c.holdUntil = c.bodyStart + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(
                                            static_cast<double>(c.bodySent + step) /
                                            static_cast<double>(f.bytesPerSecond)));
        return 0;
      }
      case Fault::Kind::Pass:
      case Fault::Kind::Answer503:
      case Fault::Kind::LoseAnswer:
      case Fault::Kind::StallAnswer:
        return UINT64_MAX;
    }
    return UINT64_MAX;
  }

  bool forwardRequestBody(Connection& c) {
    if (c.requestBody.done()) {
      c.requestPart = MessagePart::Head;
      return true;
    }
    Clock::time_point const now = Clock::now();
    if (now < c.holdUntil || c.toUpstream.size() >= kBufferLimit || c.fromClient.empty()) {
      return false;
    }
    std::uint64_t const allowed = allowance(c, now);
    if (allowed == 0) return false;
    std::size_t const offered = static_cast<std::size_t>(std::min<std::uint64_t>(
        {c.fromClient.size(), allowed, kBufferLimit - c.toUpstream.size()}));
    std::size_t const taken = c.requestBody.scan(c.fromClient.data(), offered);
    if (c.requestBody.broken()) {
      closeConnection(c, false);
      return false;
    }
    c.toUpstream.append(c.fromClient, 0, taken);
    c.fromClient.erase(0, taken);
    c.bodySent += taken;
    if (taken > 0) {
      std::lock_guard<std::mutex> lock(m_proxy.m_mutex);
      m_proxy.m_bodyBytes[c.pathKey] += taken;
    }
    bool const atFaultPoint = c.bodySent == c.fault.bodyBytes && !c.requestBody.done();
    if (c.fault.kind == Fault::Kind::ResetAfterBytes && atFaultPoint) {
      c.state = State::ResetPending;
      return false;
    }
    if (c.fault.kind == Fault::Kind::Stall && !c.stalled && atFaultPoint) {
      c.holdUntil = now + c.fault.duration;
      c.stalled = true;
    }
    return taken > 0;
  }

  void relayAnswers(Connection& c) {
    while (c.state == State::Relaying) {
      if (c.answerPart == MessagePart::Head) {
        std::size_t const end = c.fromUpstream.find("\r\n\r\n");
        if (end == std::string::npos) {
          if (c.fromUpstream.size() > kMaxHeadBytes) closeConnection(c, false);
          return;
        }
        if (!takeAnswerHead(c, end + 4)) return;
      }
      if (c.upstreamEnded && c.fromUpstream.empty()) c.answerBody.endOfStream();
      if (c.answerBody.done()) {
        c.answerPart = MessagePart::Head;
        continue;
      }
      if (c.fromUpstream.empty() || c.toClient.size() >= kBufferLimit) return;
      std::size_t const offered = std::min(c.fromUpstream.size(), kBufferLimit - c.toClient.size());
      std::size_t const taken = c.answerBody.scan(c.fromUpstream.data(), offered);
      if (c.answerBody.broken()) {
        closeConnection(c, false);
        return;
      }
      c.toClient.append(c.fromUpstream, 0, taken);
      c.fromUpstream.erase(0, taken);
    }
  }

  bool takeAnswerHead(Connection& c, std::size_t headSize) {
    MessageHead head;
    std::size_t const space = c.fromUpstream.find(' ');
    if (!parseHead(c.fromUpstream.substr(0, headSize), head) || space == std::string::npos) {
      closeConnection(c, false);
      return false;
    }
    int const status = std::atoi(head.startLine.c_str() + space + 1);
    bool const interim = status >= 100 && status < 200;
    Pending request{"GET", Fault::pass()};  // an answer nobody asked for (a 408, say)
    if (!interim && !c.pending.empty()) {
      Pending const& next = c.pending.front();
      if (next.fault.kind == Fault::Kind::StallAnswer) {
        if (!c.answerHeld) {
          c.answerHeld = true;
          c.answerHoldUntil = Clock::now() + next.fault.duration;
        }
        if (Clock::now() < c.answerHoldUntil) return false;
        c.answerHeld = false;
      }
      request = next;
      c.pending.pop_front();
    }
    if (request.fault.kind == Fault::Kind::LoseAnswer) {
      closeConnection(c, true);
      return false;
    }
    std::uint64_t length = 0;
    if (interim || status == 204 || status == 304 || request.method == "HEAD") {
      c.answerBody.start(BodyFraming::Mode::None);
    } else if (lowerCase(head.field("transfer-encoding")).find("chunked") != std::string::npos) {
      c.answerBody.start(BodyFraming::Mode::Chunked);
    } else if (head.has("content-length") && readLength(head.field("content-length"), length)) {
      c.answerBody.start(BodyFraming::Mode::Length, length);
    } else {
      c.answerBody.start(BodyFraming::Mode::UntilClose);
    }
    c.toClient.append(c.fromUpstream, 0, headSize);
    c.fromUpstream.erase(0, headSize);
    c.answerPart = MessagePart::Body;
    return true;
  }

  // The ends of the streams: the client's passes on to the server once its
  // requests are through; the server's closes the connection once its
  // answers are through.
  void endIfDone(Connection& c) {
    if (c.clientEnded && c.requestPart == MessagePart::Head && c.toUpstream.empty() &&
        !c.upstreamWriteShut && c.upstream >= 0) {
      ::shutdown(c.upstream, SHUT_WR);
      c.upstreamWriteShut = true;
    }
    bool const answersThrough = c.upstreamEnded && c.toClient.empty() &&
                                (c.fromUpstream.empty() || c.answerPart == MessagePart::Head);
    bool const bothEnded = c.clientEnded && c.upstreamEnded && c.toClient.empty();
    if (answersThrough || bothEnded) closeConnection(c, false);
  }

  void closeUpstream(Connection& c) {
    if (c.upstream >= 0) ::close(c.upstream);
    c.upstream = -1;
    c.upstreamEnded = true;
    c.toUpstream.clear();
  }

  void closeConnection(Connection& c, bool reset) {
    for (int* fd : {&c.client, &c.upstream}) {
      if (*fd < 0) continue;
      if (reset) {
        closeWithReset(*fd);
      } else {
        ::close(*fd);
      }
      *fd = -1;
    }
    c.state = State::Closed;
  }

  FaultProxy& m_proxy;
  std::list<Connection> m_connections;
};

FaultProxy::FaultProxy(std::string upstreamHost, std::uint16_t upstreamPort, FaultPolicy policy)
    : m_upstreamHost(std::move(upstreamHost)),
      m_upstreamPort(upstreamPort),
      m_policy(std::move(policy)) {
  m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof addr;
  if (m_listenFd < 0 || ::bind(m_listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(m_listenFd, 64) != 0 ||
      ::getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
    std::string const why = std::strerror(errno);
    if (m_listenFd >= 0) ::close(m_listenFd);
    throw std::runtime_error("fault proxy: cannot listen on 127.0.0.1: " + why);
  }
  m_port = ntohs(addr.sin_port);
  m_wakeFd = ::eventfd(0, EFD_CLOEXEC);
  if (m_wakeFd < 0) {
    std::string const why = std::strerror(errno);
    ::close(m_listenFd);
    throw std::runtime_error("fault proxy: eventfd: " + why);
  }
  m_loop = std::make_unique<Loop>(*this);
  m_thread = std::thread([this] { m_loop->run(); });
}

FaultProxy::~FaultProxy() {
  std::uint64_t const one = 1;
  ssize_t const written = ::write(m_wakeFd, &one, sizeof one);
  (void)written;  // an eventfd takes 8 bytes at once or the counter overflowed: it is set
  m_thread.join();
  m_loop.reset();  // closes every connection
  ::close(m_wakeFd);
  ::close(m_listenFd);
}

std::string FaultProxy::origin() const { return "http://127.0.0.1:" + std::to_string(m_port); }

void FaultProxy::setPolicy(FaultPolicy policy) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_policy = std::move(policy);
}

std::uint64_t FaultProxy::bodyBytesForwarded(std::string const& path) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto const found = m_bodyBytes.find(path);
  return found == m_bodyBytes.end() ? 0 : found->second;
}

std::map<std::string, std::uint64_t> FaultProxy::bodyBytesByPath() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_bodyBytes;
}

std::size_t FaultProxy::requestCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_requests.size();
}

std::vector<SeenRequest> FaultProxy::requests() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_requests;
}

static char const* kindName(Fault::Kind kind) {
  switch (kind) {
    case Fault::Kind::Pass: return "pass";
    case Fault::Kind::Answer503: return "503";
    case Fault::Kind::ResetAfterBytes: return "reset";
    case Fault::Kind::Stall: return "stall";
    case Fault::Kind::Throttle: return "throttle";
    case Fault::Kind::LoseAnswer: return "lose answer";
    case Fault::Kind::StallAnswer: return "stall answer";
  }
  return "?";
}

std::string FaultProxy::report() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::string text = std::to_string(m_requests.size()) + " request(s) through the proxy:\n";
  for (SeenRequest const& r : m_requests) text += "  " + r.method + " " + r.target + " (" + kindName(r.fault) + ")\n";
  for (auto const& b : m_bodyBytes) text += "  " + std::to_string(b.second) + " body bytes to " + b.first + "\n";
  return text;
}

}  // namespace qxtest
