// Internal: what a CmdServer shares with its sessions: the options, the
// token, the factory and the processor, the listening sockets, and the
// count of open sessions. Not installed.
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
  // A refused session gives back its place among the maxConnections.
  void releaseSlot() EXCLUDES(mutex);
  // Run by ~ServerSession; heldSlot says whether it still had a place.
  void sessionEnded(transport::ServerSession* session, bool heldSlot) EXCLUDES(mutex);
  std::size_t count() const EXCLUDES(mutex);

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
  void acceptNext(Listener& listener);
  void onAccept(Listener& listener, boost::system::error_code ec, transport::Socket socket)
      EXCLUDES(mutex);
  // The log line of an accept that failed, or the empty string while the
  // last one is less than kAcceptReportInterval old: such failures are
  // counted and the count goes into the next line.
  std::string acceptFailureLine(boost::system::error_code ec) REQUIRES(mutex);

  mutable transport::Mutex mutex;
  transport::CondVar ended;  // waited on with mutex: the last session or listener ended
  bool stopping GUARDED_BY(mutex) = false;
  std::size_t openListeners GUARDED_BY(mutex) = 0;
  std::size_t admitted GUARDED_BY(mutex) = 0;  // sessions that hold a place
  std::chrono::steady_clock::time_point lastAcceptReport GUARDED_BY(mutex){};
  std::size_t unreportedAcceptFailures GUARDED_BY(mutex) = 0;
  std::unordered_map<transport::ServerSession*, std::weak_ptr<transport::ServerSession>> sessions
      GUARDED_BY(mutex);
};

// "127.0.0.1:5000", "[::1]:5000".
std::string endpointText(boost::asio::ip::tcp::endpoint const& ep);

}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_SERVERCORE_H
