/// \file
/// Ipc::CmdServer: the service's side of the IPC transport, over TCP.
///
/// It listens on loopback only (127.0.0.1, and ::1 unless IPv4 is forced),
/// and for each connection:
///  1. runs the handshake in which neither side sends the secret token: it
///     answers the client's hello and nonce with its own nonce and its proof
///     of the token, then checks the client's proof in constant time; a
///     connection without the right proof is refused and logged before any
///     command is built, and a proof recorded on another connection is
///     worthless (the nonces differ);
///  2. reads one request frame at a time, builds the command that its type code
///     names through the factory, calls readReq (which reads the body and
///     deserializes it), dispatches the command with accept(processor), and
///     sends the response;
///  3. keeps the connection for the client's next command until it has been
///     idle for idleTimeout.
/// A refused request (wrong protocol version, unknown type code, a body over
/// 16 MiB, text that is not a JSON object, a deserializeReq that throws, a
/// transfer error) is logged with "ERR:", answered with its message (which
/// reaches the client's onTransferError) and ends that connection only.
///
/// Limits: at most maxConnections connections hold a place at once, and of
/// them at most maxUnprovedConnections (clamped to 1..maxConnections) have
/// not yet proved the token; the other places are kept for connections that
/// have proved it, which a flood of connections that never prove it cannot
/// take. A new connection when all the unproved places are taken, or when
/// all places are and an unproved connection holds one, takes the place of
/// an unproved one: the oldest whose hello has not been read and on whose
/// socket no byte waits, else the oldest whose hello has not been read, else
/// the oldest whose proof is awaited. That one is closed at once, with
/// the refusal "too many connections that have not proved the token (N);
/// the oldest gives way" if its socket takes it without waiting. An unproved
/// connection holds its place at least 3 ms before it gives way; until then
/// the next connection waits in the system's backlog. Refusing the newest
/// instead would let connections that are reopened as fast as they are
/// dropped keep every unproved place, and refuse a real client almost every
/// time; this way a client is accepted in its turn, its hello usually
/// already there, and needs only to send it before N newer connections push
/// it out. A new connection when every place is held by a proved connection
/// is refused ("too many connections (maxConnections)"). A refused
/// connection, while it lingers, holds no place. Connections that give way
/// are logged at most once a second, with the number since the last such
/// line; connections that end without a word of the handshake (closed, or
/// silent until helloTimeout), ten a second at most, the others counted into
/// the next such line.
/// Each time-out means "no byte moved for that long": every receive or send
/// that moves a byte, however few, either way, starts it again, so a slow
/// but live client is never cut, however long its hello, request, dropped
/// file or response takes. helloTimeout holds through the handshake,
/// idleTimeout until the next request frame is whole, transferTimeout from
/// then until the response's last byte (the time that the processor's
/// handler runs does not count). A time-out ends the connection, with a
/// refusal that says so ("no byte moved for 60 s") as long as the request (or
/// the hello) is still being read; an idle connection closed after
/// idleTimeout is a normal end and is not logged. A refusal lingers 2 s at
/// most, however its client reads. Time-outs hold to within a few
/// milliseconds (the clock's tick). An accept that fails (no descriptor left) is tried again only after 100 ms, and is
/// logged at most once a second, with the number of failures since the last
/// such line: a flood of connections neither spins the service nor fills its
/// log.
///
/// Completions run on the threads of the IoThreads given, serialised per
/// connection; processor handlers run there too. A handler whose work waits
/// on something slow hands it to a thread of its own and defers the response
/// (shared/DeferredResponse.h): no transport thread waits, and no transfer
/// time-out runs meanwhile. stop() (also run by the destructor) closes the
/// listening sockets, then every connection (which cancels their deferred
/// responses), and waits until every command in flight has ended and every
/// deferred response has been let go of: call it from a thread of your own,
/// never from a handler.
#ifndef QX_SHARED_CMDSERVER_H
#define QX_SHARED_CMDSERVER_H

#include "shared/CmdI.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace Ipc {

/// Where the server listens, and its limits (see the file's contract).
struct CmdServerOptions {
  std::uint16_t port = 0;  ///< 0: a port that the system chooses (see port())
  bool forceIp4 = false;   ///< listen on 127.0.0.1 only, not also on ::1
  std::size_t maxConnections = 64;  ///< connections that hold a place at once
  /// A handful of clients connecting at once never need more; the other 48
  /// places stay for connections that proved the token.
  std::size_t maxUnprovedConnections = 16;
  /// A client on loopback proves the token within milliseconds; a connection
  /// that has not should not hold a place for long.
  std::chrono::milliseconds helloTimeout = std::chrono::seconds(2);
  std::chrono::milliseconds idleTimeout = std::chrono::seconds(600);     ///< between two commands
  std::chrono::milliseconds transferTimeout = std::chrono::seconds(60);  ///< within a command
};

/// Builds the command that a type code names, or returns null for a code the
/// service does not know.
using CmdFactory =
    std::function<std::shared_ptr<CmdI>(CmdI::TypeCode, std::shared_ptr<CmdProcessorI> const&)>;

/// The service's side of the IPC transport (see the file's contract).
class QX_SHARED_API CmdServer {
 public:
  /// A server that does not listen before start(). Commands are built by
  /// factory and handled by processor, on the threads of io, which must
  /// outlive the server.
  CmdServer(IoThreads& io, CmdServerOptions options, SecretToken token, CmdFactory factory,
            std::shared_ptr<CmdProcessorI> processor);
  ~CmdServer();
  CmdServer(CmdServer const&) = delete;
  CmdServer& operator=(CmdServer const&) = delete;

  /// Binds and listens. Throws std::runtime_error naming the address and port
  /// when the port cannot be had.
  void start();
  /// The port listened on (the chosen one when the options said 0).
  std::uint16_t port() const;
  /// The number of connections open now.
  std::size_t connectionCount() const;
  /// Stops listening, closes every connection and waits for the commands in
  /// flight (see the file's contract). Not from a transport thread.
  void stop();

  class QX_INTERNAL Core;  // internal

 private:
  std::shared_ptr<Core> m_core;
};

}  // namespace Ipc

#endif  // QX_SHARED_CMDSERVER_H
