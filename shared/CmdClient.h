/// \file
/// Ipc::CmdClient: the user interface's side of the IPC transport.
///
/// A client keeps one connection to the service open across its commands and
/// runs one exchange on it at a time, in the order the commands were handed
/// over. The connection is made, and the secret token proven, when the first
/// command needs it: the service proves first, and a service that cannot
/// prove it holds the token is left before anything derived from the token
/// is sent (the command fails with an error that names options.tokenFile); a command issued after the connection was lost or closed
/// by the service (an idle connection, a refused exchange) makes a new one.
///
/// Time-outs: a command fails when no byte has moved, either way, for the
/// time of its reqTimeoutId(): 2 (quick commands) 10 s, 3 (server call,
/// configuration test) 120 s, 4 (file drop) 60 s. Every receive or send
/// that moves a byte, however few, starts the time again: a command never
/// times out for being large or for a slow but live service, only for
/// standing still ("timed out: no byte moved for 60 s"). Making the
/// connection has its own limit, 5 s, which then holds, in the same sense,
/// through the handshake. All can be set in the options, and hold to within
/// a few milliseconds (the clock's tick).
///
/// A failed exchange reaches the command's onTransferError with the reason:
/// the service's own message when it refused the request, otherwise what
/// happened to the connection. The completion is then called with the same
/// text.
///
/// Threads: execute() and run() may be called from any thread; completions,
/// and processor calls of the commands, run on the threads of the IoThreads
/// given, serialised per client (or on the caller's thread, in the mode
/// without threads). run() and the destructor must not be called from the
/// transport's threads. The destructor fails the commands not yet completed
/// ("Ipc the client is closing", through onTransferError and the completion,
/// as any failed exchange) and returns when no completion is running.
#ifndef QX_SHARED_CMDCLIENT_H
#define QX_SHARED_CMDCLIENT_H

#include "shared/CmdI.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Ipc {

/// Where the service is, and how long a client waits for it.
struct CmdClientOptions {
  std::string host = "127.0.0.1";  ///< the service's address
  std::uint16_t port = 0;          ///< the service's port
  std::chrono::milliseconds connectTimeout = std::chrono::seconds(5);  ///< connection and handshake
  std::chrono::milliseconds quickTimeout = std::chrono::seconds(10);     ///< identifier 2
  std::chrono::milliseconds longTimeout = std::chrono::seconds(120);     ///< identifier 3
  std::chrono::milliseconds transferTimeout = std::chrono::seconds(60);  ///< identifier 4
  /// Where the token came from; named when the service cannot prove it holds it.
  std::string tokenFile;
};

/// The user interface's side of the IPC transport (see the file's contract).
class QX_SHARED_API CmdClient {
 public:
  /// Called once per command: error is empty when the exchange completed.
  using Completion = std::function<void(std::shared_ptr<CmdI> const& cmd, std::string const& error)>;

  /// A client whose bytes move, and whose completions and processor calls
  /// run, on the threads of io, which must outlive it. No connection is made
  /// before the first command.
  CmdClient(IoThreads& io, CmdClientOptions options, SecretToken token);
  /// A client without threads of its own: its bytes move on the thread that
  /// calls run(), and its completions and processor calls run there too, so
  /// a program that waits for each answer pays no hand-over between threads.
  /// In this mode execute() only queues a command; it is carried out by the
  /// next run(). Use it from one thread at a time.
  CmdClient(CmdClientOptions options, SecretToken token);
  ~CmdClient();
  CmdClient(CmdClient const&) = delete;
  CmdClient& operator=(CmdClient const&) = delete;

  /// Queues cmd; done is called on a transport thread when it completes.
  void execute(std::shared_ptr<CmdI> cmd, Completion done);
  /// Sends cmd and waits for its completion; returns the error, empty on
  /// success. When it returns, the transport holds no reference to cmd, so
  /// the JSON documents cmd shares are the caller's alone again. (With
  /// execute(), the transport lets go of the command just after the
  /// completion returns, on its own thread.)
  std::string run(std::shared_ptr<CmdI> cmd);

  /// The time-out of identifier id (unknown identifiers: the quick one).
  std::chrono::milliseconds timeoutFor(int id) const;
  /// How many connections this client has made so far.
  std::size_t connectionsMade() const;
  /// How many bytes this client has written to the service so far (for a
  /// progress display; any thread).
  std::uint64_t bytesSent() const;

  class QX_INTERNAL Conn;  // internal

 private:
  std::unique_ptr<boost::asio::io_context> m_ownContext;  ///< the thread-less mode's
  std::shared_ptr<Conn> m_conn;
};

}  // namespace Ipc

#endif  // QX_SHARED_CMDCLIENT_H
