// Internal: the connection of a CmdClient, the channel of each of its
// commands in turn. Not installed.
//
// Its work is in two units: ClientHandshake.cpp makes the connection
// (resolving, connecting, the handshake of proofs and the service's status
// answers), and
// CmdClient.cpp runs the exchanges on it. Used on its strand only (or on the
// caller's thread alone, without threads), except for the counters, which
// any thread may read.
#ifndef QX_SHARED_TRANSPORT_CLIENTCONN_H
#define QX_SHARED_TRANSPORT_CLIENTCONN_H

#include "shared/CmdClient.h"
#include "shared/transport/AsioTypes.h"
#include "shared/transport/BufferedStream.h"
#include "shared/transport/Deadline.h"
#include "shared/transport/Exchange.h"
#include "shared/transport/Handshake.h"
#include "shared/transport/Wire.h"

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace Ipc {

class CmdClient::Conn final : public CmdChannel, public std::enable_shared_from_this<Conn> {
 public:
  // callerDriven: only the thread in CmdClient::run() runs the context.
  Conn(boost::asio::io_context& context, CmdClientOptions options, SecretToken token, bool callerDriven);
  Conn(Conn const&) = delete;
  Conn& operator=(Conn const&) = delete;

  std::chrono::milliseconds timeoutFor(int id) const;
  std::size_t connectionsMade() const { return m_connectionsMade.load(); }
  void post(std::function<void()> f);
  std::uint64_t bytesSent() const { return m_stream.bytesWritten(); }

  // Queues cmd, and starts it when nothing runs. A client with threads
  // does it on its strand; a client without threads does it at once (its
  // caller's thread alone touches it), and starts only when start is set:
  // from run().
  void enqueue(std::shared_ptr<CmdI> cmd, Completion done, bool start = true);
  // Fails what is pending and closes the connection; returns when done.
  void close();

  // CmdChannel
  void reqDone(std::shared_ptr<CmdI> const& cmd) override;
  void failCmd(std::shared_ptr<CmdI> const& cmd, std::string const& why) override;
  void finishCmd(std::shared_ptr<CmdI> const& cmd) override;
  void writeAsync(std::shared_ptr<CmdI> const& cmd, void const* data, std::size_t len,
                  std::function<void()> done) override;
  void readAsync(std::shared_ptr<CmdI> const& cmd, void* buf, std::size_t len,
                 std::function<void()> done) override;

 private:
  struct Pending {
    std::shared_ptr<CmdI> cmd;
    Completion done;
  };

  // How far the connection and the exchange on it have got. Every change
  // goes through transition(), which knows the allowed ones; Closed is
  // final.
  enum class State {
    Disconnected,     // no exchange runs, and no connection stands: the next command makes one
    Ready,            // no exchange runs; the connection stands (unless the service closed it since)
    Connecting,       // resolving and connecting for the exchange in progress
    Hello,            // the hello goes out; the service's status and proof are awaited
    Proving,          // the service proved the token; ours goes out, and its status is awaited
    Sending,          // the request goes out; its status is read meanwhile
    AwaitingStatus,   // the request is out; its status is awaited
    SendingAfterOk,   // the status said ok; the rest of the request goes out
    ReadingResponse,  // the request is out and the status said ok
    Refused,          // the status (of the hello or the request) said no; its message is read
    Closed,           // the client is closing
  };
  // Moves to state to; false (and no move) once the client is closing.
  bool transition(State to);
  // Whether the status of the hello or of the request is still awaited.
  bool awaitingStatus() const;

  // The exchanges (CmdClient.cpp).
  std::string name() const;
  void arm(std::chrono::milliseconds limit);
  void onDeadline();
  std::string ioErrorText(boost::system::error_code ec) const;
  void transferError(std::string const& why);
  template <class F>
  void guarded(std::shared_ptr<CmdI> const& cmd, F&& f);
  void onOp(boost::system::error_code ec);
  void complete(Pending& p, std::string const& error);
  void failClosing(Pending& p);
  void finishCurrent(std::string const& error, State to);
  void closeSocket();
  void startNext();
  void beginExchange();
  void readResponse(std::shared_ptr<CmdI> const& cmd);

  // The connection (ClientHandshake.cpp).
  std::string where() const;
  bool stillOpen();
  void connect();
  void connectFailed(boost::system::error_code ec);
  void onConnected(boost::system::error_code ec);
  void readStatus(std::function<void(std::string const&)> then);
  void sendHandshake(boost::asio::const_buffer message, std::function<void()> next);
  void onChallenge(boost::system::error_code ec);

  CmdClientOptions const m_options;
  SecretToken const m_token;
  bool const m_callerDriven;
  transport::Strand const m_strand;
  std::atomic<std::size_t> m_connectionsMade{0};

  // Used on the strand only, but for m_stream.bytesWritten().
  State m_state = State::Disconnected;
  transport::BufferedStream m_stream;  // the connection of now (see connect())
  transport::Deadline m_deadline;      // of the exchange in progress
  boost::asio::ip::tcp::resolver::rebind_executor<transport::Strand>::other m_resolver;
  std::deque<Pending> m_queue;
  transport::Exchange m_exchange;  // the command in progress
  Completion m_done;               // the completion of m_exchange.cmd()
  transport::handshake::Nonce m_clientNonce{};
  unsigned char m_hello[wire::kHelloSize] = {};
  unsigned char m_challenge[wire::kChallengeSize] = {};  // the service's nonce and proof
  transport::handshake::Proof m_proof{};                 // ours
  unsigned char m_status[wire::kFrameSize] = {};
  std::string m_message;     // a refusal being read
  std::string m_writeError;  // a write failure while the status was awaited
  // Not a step of the protocol: the deadline of the exchange passed, which
  // is what its failure is put down to.
  bool m_timedOut = false;
};

}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_CLIENTCONN_H
