// Internal: what a CmdServer shares with its sessions: the options, the
// token, the factory and the processor, the listening sockets, and the
// places of the open sessions. Not installed.
//
// A session's place goes None -> Silent (admitted) -> Hello (its hello was
// sound) -> Proved, and from any of them to None (refused, given way to a
// newer one, or ended); setPlace() keeps the counts of the places.
//
// Lock order: Core::mutex is the only lock of the server and is never held
// while a session is destroyed, for ~ServerSession takes it (see
// sessionEnded()). Whoever holds shared pointers to sessions lets go of them
// before taking the mutex (stop() clears its list first).
#ifndef QX_SHARED_TRANSPORT_SERVERCORE_H
#define QX_SHARED_TRANSPORT_SERVERCORE_H

#include "shared/CmdServer.h"
#include "shared/transport/AsioTypes.h"
#include "shared/transport/Mutex.h"

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/basic_waitable_timer.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Ipc {

namespace transport {
class ServerSession;
}  // namespace transport

class CmdServer::Core : public std::enable_shared_from_this<CmdServer::Core> {
 public:
  Core(IoThreads& io, CmdServerOptions options, SecretToken token, CmdFactory factory,
       std::shared_ptr<CmdProcessorI> processor)
      : io(io),
        options(options),
        token(token),
        factory(std::move(factory)),
        processor(std::move(processor)) {}
  Core(Core const&) = delete;
  Core& operator=(Core const&) = delete;

  void start() EXCLUDES(mutex);
  // Closes the listeners and the sessions, and waits until all have ended.
  void stop() EXCLUDES(mutex);
  // The session sent a sound hello: among the unproved ones it is the last
  // to give way.
  void helloHeard(transport::ServerSession* session) EXCLUDES(mutex);
  // The session proved the token; false when it had already been told to
  // give way (its place went to a newer connection).
  bool proved(transport::ServerSession* session) EXCLUDES(mutex);
  // A refused session gives back its place.
  void releasePlace(transport::ServerSession* session) EXCLUDES(mutex);
  // Run by ~ServerSession.
  void sessionEnded(transport::ServerSession* session) EXCLUDES(mutex);
  std::size_t count() const EXCLUDES(mutex);
  // Why an unproved session gives way, for its refusal and the log.
  std::string givingWayText() const;
  // The log line of a session that gives way, or the empty string while the
  // last one is less than kRefusalReportInterval old (see ReportThrottle).
  std::string givingWayLine(std::string const& peer) EXCLUDES(mutex);
  // The log line of a connection that ends without a word of the handshake
  // (closed, or silent until its time-out): the first kSilentBurst of each
  // second are written, the rest only counted into the next line, so that a
  // flood of silent connections cannot fill the log.
  std::string silentRefusalLine(std::string const& peer, std::string const& why) EXCLUDES(mutex);

  IoThreads& io;
  CmdServerOptions const options;
  SecretToken const token;
  CmdFactory const factory;
  std::shared_ptr<CmdProcessorI> const processor;

  // A listening socket with the strand of its accept handlers, and the
  // timer that spaces its accepts out after a failure.
  struct Listener {
    explicit Listener(transport::Strand s) : strand(s), acceptor(s), backoff(s) {}
    transport::Strand strand;
    boost::asio::basic_socket_acceptor<boost::asio::ip::tcp, transport::Strand> acceptor;
    boost::asio::basic_waitable_timer<std::chrono::steady_clock,
                                      boost::asio::wait_traits<std::chrono::steady_clock>, transport::Strand>
        backoff;
  };
  std::vector<std::unique_ptr<Listener>> listeners;  // set by start(), then constant
  std::uint16_t port = 0;                             // set by start(), then constant

 private:
  enum class Place {
    None,    // holds no place: refused, given way, or over the maximum
    Silent,  // admitted; no sound hello yet
    Hello,   // admitted; sent a sound hello, its proof is awaited
    Proved,  // admitted and proved the token
  };
  struct Entry {
    std::weak_ptr<transport::ServerSession> session;
    Place place = Place::None;
    std::list<transport::ServerSession*>::iterator unprovedAt{};  // while Silent or Hello
    // The socket's descriptor, only to ask how many bytes wait on it (see
    // givingWayChoice()).
    int fd = -1;
    std::chrono::steady_clock::time_point accepted{};
  };
  // Lines about one kind of event, written at most once per interval; the
  // events in between are counted, and the count goes into the next line.
  struct ReportThrottle {
    std::chrono::steady_clock::time_point windowStart{};
    std::size_t linesInWindow = 0;
    std::size_t unreported = 0;
    // text with the count appended, or the empty string (the event counted):
    // at most burst lines per interval.
    std::string line(std::string text, std::chrono::steady_clock::duration interval, std::size_t burst = 1);
  };

  void acceptNext(Listener& listener);
  void onAccept(Listener& listener, boost::system::error_code ec, transport::Socket socket)
      EXCLUDES(mutex);
  // The log line of an accept that failed, or the empty string while the
  // last one is less than kAcceptReportInterval old: such failures are
  // counted and the count goes into the next line.
  std::string acceptFailureLine(boost::system::error_code ec) REQUIRES(mutex);
  // The one place where places change; keeps admitted and unproved.
  void setPlace(transport::ServerSession* session, Entry& entry, Place to) REQUIRES(mutex);
  // The unproved session that gives way to a new connection: the oldest
  // silent one on whose socket no byte waits, else the oldest silent one,
  // else the oldest whose proof is awaited. A client's hello may wait unread
  // while the accepts of a flood run ahead of its session.
  transport::ServerSession* givingWayChoice() const REQUIRES(mutex);
  std::size_t unprovedCap() const;
  // How long the next accept waits, so that the session that would give way
  // to it has held its place for kShortestTurn; zero while an unproved place
  // is free.
  std::chrono::steady_clock::duration pauseBeforeGivingWay() const REQUIRES(mutex);

  mutable transport::Mutex mutex;
  transport::CondVar ended;  // waited on with mutex: the last session or listener ended
  bool stopping GUARDED_BY(mutex) = false;
  std::size_t openListeners GUARDED_BY(mutex) = 0;
  std::size_t admitted GUARDED_BY(mutex) = 0;  // sessions that hold a place
  // The sessions that hold a place and have not proved the token, oldest first.
  std::list<transport::ServerSession*> unproved GUARDED_BY(mutex);
  ReportThrottle acceptFailures GUARDED_BY(mutex);
  ReportThrottle givingWay GUARDED_BY(mutex);
  ReportThrottle silentRefusals GUARDED_BY(mutex);
  std::unordered_map<transport::ServerSession*, Entry> sessions GUARDED_BY(mutex);
};

// "127.0.0.1:5000", "[::1]:5000".
std::string endpointText(boost::asio::ip::tcp::endpoint const& ep);

}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_SERVERCORE_H
