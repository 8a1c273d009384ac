// Internal: one connection of a client to a CmdServer, and the channel of
// each of its commands in turn. Not installed.
//
// Made by the server's accept handler, which then runs start() (or
// refuseAtOnce() when the server is full) on the session's strand; every
// other call, and every handler, runs on that strand too. The session lives
// as long as one of its handlers holds it; its destructor tells the core
// (which takes the core's mutex: never let go of a session with it held).
#ifndef QX_SHARED_TRANSPORT_SERVERSESSION_H
#define QX_SHARED_TRANSPORT_SERVERSESSION_H

#include "shared/CmdChannel.h"
#include "shared/CmdServer.h"
#include "shared/DeferredResponse.h"
#include "shared/transport/AsioTypes.h"
#include "shared/transport/BufferedStream.h"
#include "shared/transport/Deadline.h"
#include "shared/transport/Exchange.h"
#include "shared/transport/Handshake.h"
#include "shared/transport/Wire.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Ipc {
namespace transport {

class ServerSession final : public CmdChannel, public std::enable_shared_from_this<ServerSession> {
 public:
  // Whether it holds a place among the maxConnections is the core's to know.
  ServerSession(std::shared_ptr<CmdServer::Core> core, Socket socket);
  ~ServerSession();
  ServerSession(ServerSession const&) = delete;
  ServerSession& operator=(ServerSession const&) = delete;

  Strand const& strand() const { return m_strand; }

  // Starts the handshake, in which each side proves the token.
  void start();
  // Refuses the connection at once (too many connections).
  void refuseAtOnce(std::string const& why);
  // Closes the connection, which has not proved the token, because its place
  // went to a newer one; the refusal is sent only if the socket takes it at
  // once, for a flood must not make closed connections linger.
  void giveWay();
  // Closes the connection because the service stops.
  void stop();

  // CmdChannel
  void reqDone(std::shared_ptr<CmdI> const& cmd) override;
  void failCmd(std::shared_ptr<CmdI> const& cmd, std::string const& why) override;
  void finishCmd(std::shared_ptr<CmdI> const& cmd) override;
  void writeAsync(std::shared_ptr<CmdI> const& cmd, void const* data, std::size_t len,
                  std::function<void()> done) override;
  void readAsync(std::shared_ptr<CmdI> const& cmd, void* buf, std::size_t len,
                 std::function<void()> done) override;

  // The exchange of cmd waits for its deferred work (see
  // shared/DeferredResponse.h); resume continues a response that was going
  // out. Throws std::logic_error when cmd may not wait now.
  std::shared_ptr<DeferredResponse::Wait> startWait(std::shared_ptr<CmdI> const& cmd,
                                                    std::function<void()> resume);
  // The wait of the exchange ticket ended: the connection goes on, or fails
  // the exchange when the work ended without a result. Nothing when the
  // exchange has ended meanwhile.
  void endWait(std::uint64_t ticket, bool completed);

 private:
  // How far the connection has got. Every change goes through transition(),
  // which knows the allowed ones; Closed is final.
  enum class State {
    Hello,            // the client's hello is awaited
    Proving,          // our proof goes out; the client's proof is awaited
    AwaitingRequest,  // the last step's ok status goes out; then the next request is awaited
    ReadingRequest,   // a command was built and reads its request
    Dispatching,      // the request is complete; the processor handles it
    Responding,       // the handler returned; the ok status waits for the response's first bytes
    WritingResponse,  // bytes of the response have gone out
    Waiting,          // deferred work runs elsewhere; no time-out, no operation
    Refusing,         // a refusal goes out, then what the client still sends is drained
    Closed,
  };
  // Moves to state to; false (and no move) when the session is closed
  // already, for a completion that comes after the close has nothing left
  // to do.
  bool transition(State to);
  // Whether a failure now can still be answered with a refusal: the status
  // of the hello or of the request in progress has not been written.
  bool mayStillRefuse() const;

  void watchClientWhileWaiting(std::uint64_t ticket);
  void arm(std::chrono::milliseconds limit);
  void onDeadline();
  std::string ioErrorText(boost::system::error_code ec) const;
  void onOp(boost::system::error_code ec);
  void onHello(boost::system::error_code ec);
  void onClientProof(boost::system::error_code ec);
  void refuseHandshake(std::string const& why);
  // The same for a connection that said nothing: its log line is throttled.
  void refuseSilent(std::string const& why);
  void answerOkThenReadNext();
  void readNextRequest();
  void onRequestFrame(boost::system::error_code ec);
  void refuse(std::string const& why);
  void drain();
  void close();

  std::shared_ptr<CmdServer::Core> const m_core;
  Strand const m_strand;
  std::string const m_peer;

  // Used on the strand only.
  State m_state = State::Hello;
  BufferedStream m_stream;
  Deadline m_deadline;  // of the operation in progress
  Exchange m_exchange;  // the command whose request or response moves now
  // While Waiting: the state to go back to, what then continues the
  // response (empty: sendResp), and the wait, cancelled by a close.
  State m_stateBeforeWait = State::Dispatching;
  std::function<void()> m_resume;
  std::weak_ptr<DeferredResponse::Wait> m_wait;
  std::array<unsigned char, wire::kHelloSize> m_hello{};
  handshake::Nonce m_clientNonce{};
  handshake::Nonce m_serviceNonce{};
  // The ok status frame, our nonce and our proof.
  std::array<unsigned char, wire::kFrameSize + wire::kChallengeSize> m_challenge{};
  handshake::Proof m_clientProof{};
  std::array<unsigned char, wire::kFrameSize> m_frame{};
  unsigned char m_okFrame[wire::kFrameSize] = {};
  std::string m_refusal;
  std::array<char, 4096> m_drain{};
  // Not steps of the protocol but what a failure is put down to: the
  // deadline of the operation in progress passed; the service is stopping.
  bool m_timedOut = false;
  bool m_stopping = false;
};

}  // namespace transport
}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_SERVERSESSION_H
