// A TCP proxy for tests that puts faults between a client and an HTTP/1.1
// server, one request at a time.
//
// It listens on 127.0.0.1 on a port the system chooses and opens one
// connection to the upstream per client connection. It follows the framing of
// requests and answers (Content-Length, chunked, the bodiless answers to HEAD
// and of 1xx, 204 and 304, an answer that runs until the server closes; keep-
// alive; the client waits for each answer before its next request), so it can
// act on each request: the policy, called with the request's method and path
// before any of it is forwarded, returns the Fault for that request.
//
// Counts: the body bytes of each request that the proxy forwarded, summed
// per path (the request target without its query), with an entry for every
// path whose request was forwarded; for a chunked body its bytes as sent,
// chunk lines included. All of them were written to the upstream's socket
// unless the upstream closed first (a reset waits until they are). Every
// request the policy saw.
//
// Threads: all the proxy's work runs on one thread of its own, started by the
// constructor. The destructor stops it: it closes every connection (clients
// then see the end of the stream) and joins the thread. setPolicy() and the
// counts may be called from any thread; the policy runs on the proxy's thread,
// must not throw and must not call the proxy.
#ifndef QX_TESTS_FAULTPROXY_H
#define QX_TESTS_FAULTPROXY_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qxtest {

struct Fault {
  enum class Kind {
    Pass,              // forward the request and its answer
    Answer503,         // forward nothing; answer "503 Service Unavailable" and close
    ResetAfterBytes,   // forward the head and bodyBytes of the body, then reset both
                       // connections (a shorter body passes whole)
    Stall,             // forward the head and bodyBytes of the body, then nothing for
                       // duration, then the rest (bodyBytes 0: hold the head too)
    Throttle,          // forward the body at bytesPerSecond
    LoseAnswer,        // forward the request; when the answer begins, reset the client's
                       // connection instead of forwarding it: the server did the
                       // work, the client never learns it
    StallAnswer,       // forward the request; hold its answer for duration
  };
  Kind kind = Kind::Pass;
  std::uint64_t bodyBytes = 0;
  std::chrono::milliseconds duration{0};
  std::uint64_t bytesPerSecond = 0;

  static Fault pass() { return {}; }
  static Fault answer503() { return {Kind::Answer503, 0, {}, 0}; }
  static Fault resetAfter(std::uint64_t bodyBytes) {
    return {Kind::ResetAfterBytes, bodyBytes, {}, 0};
  }
  static Fault stall(std::chrono::milliseconds duration, std::uint64_t afterBodyBytes = 0) {
    return {Kind::Stall, afterBodyBytes, duration, 0};
  }
  static Fault throttle(std::uint64_t bytesPerSecond) {
    return {Kind::Throttle, 0, {}, bytesPerSecond};
  }
  static Fault loseAnswer() { return {Kind::LoseAnswer, 0, {}, 0}; }
  static Fault stallAnswer(std::chrono::milliseconds duration) {
    return {Kind::StallAnswer, 0, duration, 0};
  }
};

// Decides the fault of a request from its method and path (query included).
using FaultPolicy = std::function<Fault(std::string const& method, std::string const& target)>;

struct SeenRequest {
  std::string method;
  std::string target;
  Fault::Kind fault;
};

class FaultProxy {
 public:
  // Throws std::runtime_error when it cannot listen. An upstream that cannot
  // be reached gets the client "502 Bad Gateway".
  FaultProxy(std::string upstreamHost, std::uint16_t upstreamPort, FaultPolicy policy = {});
  ~FaultProxy();
  FaultProxy(FaultProxy const&) = delete;
  FaultProxy& operator=(FaultProxy const&) = delete;

  std::uint16_t port() const { return m_port; }
  // "http://127.0.0.1:PORT"
  std::string origin() const;

  // For the requests that begin from now on; an empty policy passes all.
  void setPolicy(FaultPolicy policy);

  // Body bytes handed to the upstream for requests to path (no query).
  std::uint64_t bodyBytesForwarded(std::string const& path) const;
  std::map<std::string, std::uint64_t> bodyBytesByPath() const;
  std::size_t requestCount() const;
  std::vector<SeenRequest> requests() const;
  // Every request seen with its fault, and the body bytes forwarded by path:
  // for the message of a failing test.
  std::string report() const;

 private:
  class Loop;

  std::string const m_upstreamHost;
  std::uint16_t const m_upstreamPort;
  std::uint16_t m_port = 0;
  int m_listenFd = -1;
  int m_wakeFd = -1;  // an eventfd that tells the thread to stop

  mutable std::mutex m_mutex;
  FaultPolicy m_policy;
  std::map<std::string, std::uint64_t> m_bodyBytes;
  std::vector<SeenRequest> m_requests;

  std::unique_ptr<Loop> m_loop;
  std::thread m_thread;
};

}  // namespace qxtest

#endif  // QX_TESTS_FAULTPROXY_H
