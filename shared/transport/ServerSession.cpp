#include "shared/transport/ServerSession.h"

#include "shared/Log.h"
#include "shared/transport/DeferredWait.h"
#include "shared/transport/ServerCore.h"

#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <stdexcept>

namespace Ipc {
namespace transport {

using boost::asio::ip::tcp;

namespace {

// How long a refused connection is drained before it is closed, so that the
// refusal reaches the client instead of a reset.
constexpr std::chrono::milliseconds kLingerTime{2000};

// A request frame, a JSON body and the start of a dropped file's piece.
constexpr std::size_t kReadAhead = 16 * 1024;

std::string peerText(Socket const& socket) {
  boost::system::error_code ec;
  tcp::endpoint const ep = socket.remote_endpoint(ec);
  return ec ? std::string("an unknown peer") : endpointText(ep);
}

}  // namespace

ServerSession::ServerSession(std::shared_ptr<CmdServer::Core> core, Socket socket)
    : m_core(std::move(core)),
      m_strand(socket.get_executor()),
      m_peer(peerText(socket)),
      m_stream(std::move(socket), kReadAhead),
      m_deadline(m_strand,
                 std::min({m_core->options.helloTimeout, m_core->options.transferTimeout,
                           m_core->options.idleTimeout}),
                 [this] { onDeadline(); }) {
  // Any byte that moves puts off the deadline of the operation in progress.
  // A refusal's linger is a bound of its own: a client that takes its
  // message a byte at a time does not hold the connection longer.
  m_stream.onBytesMoved([this] {
    if (m_state != State::Refusing && m_state != State::Closed) arm(m_deadline.limit());
  });
}

ServerSession::~ServerSession() { m_core->sessionEnded(this); }

bool ServerSession::transition(State to) {
  // The states each state may move to.
  using S = State;
  auto bit = [](S s) { return 1u << static_cast<unsigned>(s); };
  static unsigned const allowed[] = {
      /* Hello */ bit(S::Proving) | bit(S::Refusing) | bit(S::Closed),
      /* Proving */ bit(S::AwaitingRequest) | bit(S::Refusing) | bit(S::Closed),
      /* AwaitingRequest */ bit(S::ReadingRequest) | bit(S::Refusing) | bit(S::Closed),
      /* ReadingRequest */ bit(S::Dispatching) | bit(S::AwaitingRequest) | bit(S::Refusing) | bit(S::Closed),
      /* Dispatching */ bit(S::Responding) | bit(S::Waiting) | bit(S::AwaitingRequest) | bit(S::Refusing) | bit(S::Closed),
      /* Responding */ bit(S::WritingResponse) | bit(S::Waiting) | bit(S::AwaitingRequest) | bit(S::Refusing) | bit(S::Closed),
      /* WritingResponse */ bit(S::Waiting) | bit(S::AwaitingRequest) | bit(S::Closed),
      /* Waiting */ bit(S::Responding) | bit(S::WritingResponse) | bit(S::Refusing) | bit(S::Closed),
      /* Refusing */ bit(S::Closed),
      /* Closed */ 0,
  };
  static_assert(sizeof allowed / sizeof allowed[0] == static_cast<unsigned>(S::Closed) + 1,
                "one row per state");
  if (m_state == S::Closed) return false;
  assert(allowed[static_cast<unsigned>(m_state)] & bit(to));
  m_state = to;
  return true;
}

bool ServerSession::mayStillRefuse() const {
  switch (m_state) {
    case State::Hello:
    case State::Proving:
    case State::ReadingRequest:
    case State::Dispatching:
    case State::Responding:
      return true;
    case State::Waiting:
      return m_stateBeforeWait != State::WritingResponse;
    default:
      return false;
  }
}

void ServerSession::start() {
  m_stream.drive([&] {
    arm(m_core->options.helloTimeout);
    m_stream.read(m_hello.data(), m_hello.size(), shared_from_this(),
                  [this](boost::system::error_code ec) { onHello(ec); });
  });
}

void ServerSession::refuseAtOnce(std::string const& why) {
  Log::inst().writeLine("ERR:", "Ipc connection from " + m_peer + " refused: " + why);
  m_stream.drive([&] { refuse("Ipc connection refused: " + why); });
}

void ServerSession::giveWay() {
  if (m_state != State::Hello && m_state != State::Proving) return;  // refused or closed meanwhile
  std::string const line = m_core->givingWayLine(m_peer);
  if (!line.empty()) Log::inst().writeLine("ERR:", line);
  std::string const msg = "Ipc connection refused: " + m_core->givingWayText();
  std::string refusal(wire::kFrameSize, '\0');
  wire::putStatusFrame(reinterpret_cast<unsigned char*>(&refusal[0]), wire::kStatusRefused,
                       static_cast<std::uint32_t>(msg.size()));
  refusal += msg;
  boost::system::error_code ignored;
  Socket& socket = m_stream.socket();
  socket.non_blocking(true, ignored);
  if (!ignored) socket.write_some(boost::asio::buffer(refusal), ignored);
  close();
}

void ServerSession::stop() {
  m_stopping = true;
  close();
}

void ServerSession::reqDone(std::shared_ptr<CmdI> const& cmd) {
  if (!m_exchange.holds(cmd) || !transition(State::Dispatching)) return;
  try {
    IoThreads::Busy busy;
    cmd->accept(*m_core->processor);
  } catch (std::exception const& e) {
    failCmd(cmd, "Ipc " + std::string(cmd->name()) + " failed in the service: " + e.what());
    return;
  }
  if (!m_exchange.holds(cmd)) return;  // the handler ended the exchange
  if (m_state == State::Waiting) return;  // the handler deferred it: endWait goes on
  if (!transition(State::Responding)) return;
  arm(m_core->options.transferTimeout);  // the handler's own time does not count
  Exchange::guarded(*cmd, [&] { cmd->sendResp(); }, [&](std::string const& why) { failCmd(cmd, why); });
}

void ServerSession::failCmd(std::shared_ptr<CmdI> const& cmd, std::string const& why) {
  if (!m_exchange.holds(cmd)) return;
  bool const refusable = mayStillRefuse();
  m_exchange.end();
  cmd->setChannel(nullptr);
  Log::inst().writeLine("ERR:", why);
  if (refusable) {
    refuse(why);
  } else {
    close();
  }
}

void ServerSession::finishCmd(std::shared_ptr<CmdI> const& cmd) {
  if (!m_exchange.holds(cmd)) return;
  bool const okPending = m_state == State::Responding;
  m_exchange.end();
  cmd->setChannel(nullptr);
  if (!transition(State::AwaitingRequest)) return;
  if (okPending) {
    answerOkThenReadNext();
  } else {
    readNextRequest();
  }
}

void ServerSession::writeAsync(std::shared_ptr<CmdI> const& cmd, void const* data, std::size_t len,
                               std::function<void()> done) {
  m_exchange.startOp(cmd, std::move(done));
  boost::asio::const_buffer status;
  if (m_state == State::Responding) {
    // The status frame goes out with the first bytes of the response.
    transition(State::WritingResponse);
    wire::putStatusFrame(m_okFrame, wire::kStatusOk, 0);
    status = boost::asio::buffer(m_okFrame);
  }
  m_stream.write(status, boost::asio::buffer(data, len), shared_from_this(),
                 [this, at = m_exchange.ticket()](boost::system::error_code ec) {
                   if (m_exchange.isCurrent(at)) onOp(ec);
                 });
}

void ServerSession::readAsync(std::shared_ptr<CmdI> const& cmd, void* buf, std::size_t len,
                              std::function<void()> done) {
  m_exchange.startOp(cmd, std::move(done));
  m_stream.read(buf, len, shared_from_this(), [this, at = m_exchange.ticket()](boost::system::error_code ec) {
    if (m_exchange.isCurrent(at)) onOp(ec);
  });
}

std::shared_ptr<DeferredResponse::Wait> ServerSession::startWait(std::shared_ptr<CmdI> const& cmd,
                                                                 std::function<void()> resume) {
  bool const inHandler = m_state == State::Dispatching;
  bool const betweenWrites =
      (m_state == State::Responding || m_state == State::WritingResponse) && !m_exchange.opPending();
  if (!m_exchange.holds(cmd) || !(inHandler || (betweenWrites && resume))) {
    throw std::logic_error("Ipc " + std::string(cmd->name()) +
                           " cannot defer its response now: only its handler, or its response between two "
                           "writes with a way to resume, may");
  }
  m_stateBeforeWait = m_state;
  m_resume = std::move(resume);
  transition(State::Waiting);
  // The work bounds itself; the transfer time-out starts again with the
  // connection's next operation.
  m_deadline.cancel();
  m_timedOut = false;
  auto wait = std::make_shared<DeferredResponse::Wait>(shared_from_this(), m_exchange.ticket());
  m_wait = wait;
  watchClientWhileWaiting(m_exchange.ticket());
  return wait;
}

// A client that leaves while its command's work runs ends the connection at
// once, which tells the work that its result is no longer wanted. Nothing is
// read: bytes that the client sends out of turn wait for the next request.
void ServerSession::watchClientWhileWaiting(std::uint64_t ticket) {
  m_stream.socket().async_wait(
      tcp::socket::wait_read, [self = shared_from_this(), ticket](boost::system::error_code ec) {
        if (ec || self->m_state != State::Waiting || !self->m_exchange.isCurrent(ticket)) return;
        char byte;
        ssize_t const n =
            ::recv(self->m_stream.socket().native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
          self->watchClientWhileWaiting(ticket);
        } else if (n <= 0) {
          self->close();  // the client left, or its connection broke: a normal end
        }
      });
}

void ServerSession::endWait(std::uint64_t ticket, bool completed) {
  if (m_state != State::Waiting || !m_exchange.isCurrent(ticket)) return;  // closed or refused meanwhile
  std::shared_ptr<CmdI> const cmd = m_exchange.cmd();
  std::function<void()> const resume = std::move(m_resume);
  m_resume = nullptr;
  m_wait.reset();
  transition(m_stateBeforeWait == State::Dispatching ? State::Responding : m_stateBeforeWait);
  if (!completed) {
    failCmd(cmd, "Ipc " + std::string(cmd->name()) + " failed in the service: its work ended without a result");
    return;
  }
  arm(m_core->options.transferTimeout);
  Exchange::guarded(
      *cmd,
      [&] {
        if (resume) resume();
        else cmd->sendResp();
      },
      [&](std::string const& why) { failCmd(cmd, why); });
}

void ServerSession::arm(std::chrono::milliseconds limit) {
  // A deadline that passed just as its operation completed no longer
  // counts: only the new one can time out.
  m_timedOut = false;
  m_deadline.arm(limit, [this] { return shared_from_this(); });
}

void ServerSession::onDeadline() {
  if (m_state == State::Closed) return;
  m_timedOut = true;
  if (!mayStillRefuse()) {
    close();
    return;
  }
  // Before the hello and while a request is read, the client is still
  // listening for a status: the read in progress is cancelled, and its
  // handler answers with the reason instead of dropping the connection.
  // A read whose last part had just arrived goes on with the next part,
  // which cancel() could not reach; the deadline is therefore kept, and its
  // next expiry cancels that part too.
  boost::system::error_code ignored;
  m_stream.socket().cancel(ignored);
  m_deadline.arm(m_deadline.limit(), [this] { return shared_from_this(); });
}

std::string ServerSession::ioErrorText(boost::system::error_code ec) const {
  if (m_timedOut) return stalledText(m_deadline.limit());
  if (m_stopping) return "the service is stopping";
  return peerErrorText(ec, "the client");
}

void ServerSession::onOp(boost::system::error_code ec) {
  PendingOp const op = m_exchange.takeOp();
  if (ec) {
    m_exchange.transferFailed(op.cmd, "Ipc " + std::string(op.cmd->name()) + ": " + ioErrorText(ec),
                              *this);
    return;
  }
  arm(m_core->options.transferTimeout);
  Exchange::guarded(*op.cmd, op.done, [&](std::string const& why) { failCmd(op.cmd, why); });
}

void ServerSession::refuseHandshake(std::string const& why) {
  Log::inst().writeLine("ERR:", "Ipc connection from " + m_peer + " refused: " + why);
  refuse("Ipc connection refused: " + why);
}

void ServerSession::refuseSilent(std::string const& why) {
  std::string const line = m_core->silentRefusalLine(m_peer, why);
  if (!line.empty()) Log::inst().writeLine("ERR:", line);
  refuse("Ipc connection refused: " + why);
}

void ServerSession::onHello(boost::system::error_code ec) {
  if (m_state == State::Closed) return;  // the service stopped meanwhile
  if (ec) {
    refuseSilent("no token (" + ioErrorText(ec) + ")");
    return;
  }
  std::string const why = wire::checkHelloStart(m_hello.data());
  if (!why.empty()) {
    refuseHandshake(why);
    return;
  }
  m_core->helloHeard(this);
  std::memcpy(m_clientNonce.data(), m_hello.data() + 8, m_clientNonce.size());
  try {
    m_serviceNonce = handshake::freshNonce();
  } catch (std::exception const& e) {
    refuseHandshake(e.what());
    return;
  }
  handshake::Proof const proof = handshake::prove(m_core->token, handshake::Role::Service,
                                                  wire::kVersion, m_clientNonce, m_serviceNonce);
  wire::putStatusFrame(m_challenge.data(), wire::kStatusOk, 0);
  std::memcpy(m_challenge.data() + wire::kFrameSize, m_serviceNonce.data(), wire::kNonceSize);
  std::memcpy(m_challenge.data() + wire::kFrameSize + wire::kNonceSize, proof.data(), wire::kProofSize);
  transition(State::Proving);
  arm(m_core->options.helloTimeout);
  m_stream.write(boost::asio::buffer(m_challenge), boost::asio::const_buffer(), shared_from_this(),
                 [this](boost::system::error_code ec) {
                   if (ec) {
                     close();
                     return;
                   }
                   m_stream.read(m_clientProof.data(), m_clientProof.size(), shared_from_this(),
                                 [this](boost::system::error_code ec) { onClientProof(ec); });
                 });
}

// The client's proof is checked in constant time; a proof recorded on
// another connection was made for other nonces and fails here.
void ServerSession::onClientProof(boost::system::error_code ec) {
  if (m_state == State::Closed) return;  // the service stopped meanwhile
  if (ec) {
    refuseSilent("no token (" + ioErrorText(ec) + ")");
    return;
  }
  if (!handshake::verify(m_core->token, handshake::Role::Client, wire::kVersion, m_clientNonce,
                         m_serviceNonce, m_clientProof.data())) {
    refuseHandshake("wrong token");
    return;
  }
  if (!m_core->proved(this)) {
    giveWay();  // its place went to a newer connection just before the proof came
    return;
  }
  transition(State::AwaitingRequest);
  answerOkThenReadNext();
}

void ServerSession::answerOkThenReadNext() {
  wire::putStatusFrame(m_okFrame, wire::kStatusOk, 0);
  m_stream.write(boost::asio::buffer(m_okFrame), boost::asio::const_buffer(), shared_from_this(),
                 [this](boost::system::error_code ec) {
                   if (ec) close();
                   else readNextRequest();
                 });
}

void ServerSession::readNextRequest() {
  if (m_state == State::Closed) return;  // the service stopped meanwhile
  arm(m_core->options.idleTimeout);
  m_stream.read(m_frame.data(), m_frame.size(), shared_from_this(),
                [this](boost::system::error_code ec) { onRequestFrame(ec); });
}

void ServerSession::onRequestFrame(boost::system::error_code ec) {
  if (ec) {
    close();  // the client left, or stayed idle too long: a normal end
    return;
  }
  if (m_state == State::Closed) return;  // the service stopped meanwhile
  arm(m_core->options.transferTimeout);
  std::string why = wire::checkFrameStart(m_frame.data());
  std::shared_ptr<CmdI> cmd;
  if (why.empty()) {
    try {
      IoThreads::Busy busy;
      cmd = m_core->factory(m_frame[3], m_core->processor);
    } catch (std::exception const& e) {
      why = "command type code " + std::to_string(m_frame[3]) + " cannot be built: " + e.what();
    }
    if (!cmd && why.empty()) why = "unknown command type code " + std::to_string(m_frame[3]);
  }
  if (!why.empty()) {
    why = "Ipc " + why + " from " + m_peer;
    Log::inst().writeLine("ERR:", why);
    refuse(why);
    return;
  }
  transition(State::ReadingRequest);
  m_exchange.begin(cmd);
  cmd->setChannel(this, (m_frame[4] & wire::kFlagJsonBody) != 0);
  Exchange::guarded(*cmd, [&] { cmd->readReq(); }, [&](std::string const& why) { failCmd(cmd, why); });
}

void ServerSession::refuse(std::string const& why) {
  if (!transition(State::Refusing)) return;
  // A refused connection only lingers: it holds no place.
  m_core->releasePlace(this);
  std::string const msg = why.substr(0, wire::kMaxMessage);
  m_refusal.assign(wire::kFrameSize, '\0');
  wire::putStatusFrame(reinterpret_cast<unsigned char*>(&m_refusal[0]), wire::kStatusRefused,
                       static_cast<std::uint32_t>(msg.size()));
  m_refusal += msg;
  arm(kLingerTime);
  m_stream.write(boost::asio::buffer(m_refusal), boost::asio::const_buffer(), shared_from_this(),
                 [this](boost::system::error_code ec) {
                   if (ec) {
                     close();
                     return;
                   }
                   boost::system::error_code ignored;
                   m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
                   drain();
                 });
}

void ServerSession::drain() {
  m_stream.socket().async_read_some(boost::asio::buffer(m_drain),
                                    [self = shared_from_this()](boost::system::error_code ec, std::size_t) {
                                      if (ec) self->close();
                                      else self->drain();
                                    });
}

void ServerSession::close() {
  transition(State::Closed);
  // Deferred work is no longer wanted; it ends the wait when it can.
  if (std::shared_ptr<DeferredResponse::Wait> const wait = m_wait.lock()) wait->cancel();
  m_wait.reset();
  m_deadline.cancel();
  m_stream.close();
}

}  // namespace transport
}  // namespace Ipc
