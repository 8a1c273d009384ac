#include "shared/CmdServer.h"

#include "shared/transport/AsioTypes.h"
#include "shared/transport/BufferedStream.h"
#include "shared/transport/Deadline.h"
#include "shared/transport/PendingOp.h"
#include "shared/Log.h"
#include "shared/transport/Wire.h"

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <mutex>
#include <unordered_map>

namespace Ipc {

using boost::asio::ip::tcp;
using transport::Socket;
using transport::Strand;
using transport::PendingOp;

namespace {

std::string endpointText(tcp::endpoint const& ep) {
  boost::asio::ip::address const a = ep.address();
  std::string const host = a.is_v6() ? "[" + a.to_string() + "]" : a.to_string();
  return host + ":" + std::to_string(ep.port());
}

// How long a refused connection is drained before it is closed, so that the
// refusal reaches the client instead of a reset.
constexpr std::chrono::milliseconds kLingerTime{2000};

// A request frame, a JSON body and the start of a dropped file's piece.
constexpr std::size_t kReadAhead = 16 * 1024;

class Session;

}  // namespace

class CmdServer::Core : public std::enable_shared_from_this<CmdServer::Core> {
 public:
  Core(IoThreads& io, CmdServerOptions options, SecretToken token, CmdFactory factory,
       std::shared_ptr<CmdProcessorI> processor)
      : io(io),
        options(options),
        token(token),
        factory(std::move(factory)),
        processor(std::move(processor)) {}

  void start();
  void stop();
  // A session gives back its place among the maxConnections (refused, or
  // ended); heldSlot says whether it had one.
  void releaseSlot();
  void sessionEnded(Session* session, bool heldSlot);
  std::size_t count() const {
    std::lock_guard<std::mutex> lock(mutex);
    return sessions.size();
  }

  IoThreads& io;
  CmdServerOptions const options;
  SecretToken const token;
  CmdFactory const factory;
  std::shared_ptr<CmdProcessorI> const processor;

  // A listening socket with the strand of its accept handlers.
  struct Listener {
    explicit Listener(Strand s) : strand(s), acceptor(s) {}
    Strand strand;
    boost::asio::basic_socket_acceptor<tcp, Strand> acceptor;
  };
  std::vector<std::unique_ptr<Listener>> listeners;  // set by start(), then constant
  std::uint16_t port = 0;                             // set by start(), then constant

  mutable std::mutex mutex;
  std::condition_variable ended;                                // signalled on mutex
  bool stopping = false;                                        // guarded by mutex
  std::size_t openListeners = 0;                                // guarded by mutex
  std::size_t admitted = 0;  // sessions that hold a place; guarded by mutex
  std::unordered_map<Session*, std::weak_ptr<Session>> sessions;  // guarded by mutex

 private:
  void acceptNext(Listener& listener);
  void onAccept(Listener& listener, boost::system::error_code ec, Socket socket);
};

namespace {

// One connection of a client: the channel of each of its commands in turn.
class Session final : public CmdChannel, public std::enable_shared_from_this<Session> {
 public:
  // holdsSlot: the session was admitted and counts against maxConnections
  // until it is refused or ends.
  Session(std::shared_ptr<CmdServer::Core> core, Socket socket, bool holdsSlot)
      : m_core(std::move(core)),
        m_strand(socket.get_executor()),
        m_peer(peerText(socket)),
        m_stream(std::move(socket), kReadAhead),
        m_deadline(m_strand,
                   std::min({m_core->options.helloTimeout, m_core->options.transferTimeout,
                             m_core->options.idleTimeout}),
                   [this] { onDeadline(); }),
        m_holdsSlot(holdsSlot) {}

  ~Session() { m_core->sessionEnded(this, m_holdsSlot); }

  Strand const& strand() const { return m_strand; }

  // Starts the exchange of hello and token.
  void start() {
    m_stream.drive([&] {
      arm(m_core->options.helloTimeout);
      m_stream.read(m_hello.data(), m_hello.size(), shared_from_this(),
                    [this](boost::system::error_code ec) { onHello(ec); });
    });
  }

  // Refuses the connection at once (too many connections).
  void refuseAtOnce(std::string const& why) {
    Log::inst().writeLine("ERR:", "Ipc connection from " + m_peer + " refused: " + why);
    m_stream.drive([&] { refuse("Ipc connection refused: " + why); });
  }

  // Run on the strand by CmdServer::stop().
  void stop() {
    m_stopping = true;
    close();
  }

  void reqDone(std::shared_ptr<CmdI> const& cmd) override {
    if (cmd != m_cmd) return;
    try {
      IoThreads::Busy busy;
      cmd->accept(*m_core->processor);
    } catch (std::exception const& e) {
      failCmd(cmd, "Ipc " + std::string(cmd->name()) + " failed in the service: " + e.what());
      return;
    }
    if (cmd != m_cmd) return;  // the handler ended the exchange
    arm(m_core->options.transferTimeout);  // the handler's own time does not count
    m_okPending = true;
    guarded(cmd, [&] { cmd->sendResp(); });
  }

  void failCmd(std::shared_ptr<CmdI> const& cmd, std::string const& why) override {
    if (cmd != m_cmd) return;
    m_cmd.reset();
    cmd->setChannel(nullptr);
    Log::inst().writeLine("ERR:", why);
    if (m_respStarted || m_closed) {
      close();
    } else {
      refuse(why);
    }
  }

  void finishCmd(std::shared_ptr<CmdI> const& cmd) override {
    if (cmd != m_cmd) return;
    m_cmd.reset();
    cmd->setChannel(nullptr);
    if (!m_okPending) {
      readNextRequest();
      return;
    }
    m_okPending = false;
    answerOkThenReadNext();
  }

  void writeAsync(std::shared_ptr<CmdI> const& cmd, void const* data, std::size_t len,
                  std::function<void()> done) override {
    m_op = PendingOp{cmd, std::move(done)};
    m_respStarted = m_respStarted || m_okPending;
    boost::asio::const_buffer status;
    if (m_okPending) {
      // The status frame goes out with the first bytes of the response.
      m_okPending = false;
      wire::putStatusFrame(m_okFrame, wire::kStatusOk, 0);
      status = boost::asio::buffer(m_okFrame);
    }
    m_stream.write(status, boost::asio::buffer(data, len), shared_from_this(),
                   [this](boost::system::error_code ec) { onOp(ec); });
  }

  void readAsync(std::shared_ptr<CmdI> const& cmd, void* buf, std::size_t len,
                 std::function<void()> done) override {
    m_op = PendingOp{cmd, std::move(done)};
    m_stream.read(buf, len, shared_from_this(), [this](boost::system::error_code ec) { onOp(ec); });
  }

 private:
  static std::string peerText(Socket const& socket) {
    boost::system::error_code ec;
    tcp::endpoint const ep = socket.remote_endpoint(ec);
    return ec ? std::string("an unknown peer") : endpointText(ep);
  }

  // The deadline of the operation that runs now; a new one replaces it.
  void arm(std::chrono::milliseconds limit) {
    // A deadline that passed just as its operation completed no longer
    // counts: only the new one can time out.
    m_timedOut = false;
    m_deadline.arm(limit, [this] { return shared_from_this(); });
  }

  void onDeadline() {
    if (m_closed) return;
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

  // Whether a failure now can still be answered with a refusal: the status
  // of the hello or of the request in progress has not been written.
  bool mayStillRefuse() const {
    return !m_closed && !m_refusing && !m_respStarted && (!m_helloDone || m_cmd);
  }

  std::string ioErrorText(boost::system::error_code ec) const {
    if (m_timedOut) return "no byte moved for " + transport::durationText(m_deadline.limit());
    if (m_stopping) return "the service is stopping";
    if (ec == boost::asio::error::eof) return "the client closed the connection";
    return ec.message();
  }

  // Runs f for cmd; an exception ends the exchange with its message.
  template <class F>
  void guarded(std::shared_ptr<CmdI> const& cmd, F&& f) {
    IoThreads::Busy busy;
    try {
      f();
    } catch (std::exception const& e) {
      failCmd(cmd, "Ipc " + std::string(cmd->name()) + " failed: " + e.what());
    }
  }

  // The operation of the command ended.
  void onOp(boost::system::error_code ec) {
    PendingOp const op = m_op.take();
    onIo(ec, op.cmd, op.done);
  }

  void onIo(boost::system::error_code ec, std::shared_ptr<CmdI> const& cmd,
            std::function<void()> const& done) {
    if (cmd != m_cmd) return;
    if (ec) {
      std::string const why = "Ipc " + std::string(cmd->name()) + ": " + ioErrorText(ec);
      {
        IoThreads::Busy busy;
        cmd->onTransferError(why);
      }
      if (cmd == m_cmd) failCmd(cmd, why);  // an override that did not end it
      return;
    }
    arm(m_core->options.transferTimeout);
    guarded(cmd, done);
  }

  void onHello(boost::system::error_code ec) {
    if (ec) {
      if (m_stopping) {
        close();
        return;
      }
      std::string const why = "no token (" + ioErrorText(ec) + ")";
      Log::inst().writeLine("ERR:", "Ipc connection from " + m_peer + " refused: " + why);
      refuse("Ipc connection refused: " + why);
      return;
    }
    std::string why = wire::checkHelloStart(m_hello.data());
    if (why.empty() && !m_core->token.matches(m_hello.data() + 8)) why = "wrong token";
    if (!why.empty()) {
      Log::inst().writeLine("ERR:", "Ipc connection from " + m_peer + " refused: " + why);
      refuse("Ipc connection refused: " + why);
      return;
    }
    m_helloDone = true;
    answerOkThenReadNext();
  }

  // Writes the ok status frame alone, then waits for the next request.
  void answerOkThenReadNext() {
    wire::putStatusFrame(m_okFrame, wire::kStatusOk, 0);
    m_stream.write(boost::asio::buffer(m_okFrame), boost::asio::const_buffer(), shared_from_this(),
                   [this](boost::system::error_code ec) {
                     if (ec) close();
                     else readNextRequest();
                   });
  }

  void readNextRequest() {
    m_respStarted = false;
    arm(m_core->options.idleTimeout);
    m_stream.read(m_frame.data(), m_frame.size(), shared_from_this(),
                  [this](boost::system::error_code ec) { onRequestFrame(ec); });
  }

  void onRequestFrame(boost::system::error_code ec) {
    if (ec) {
      close();  // the client left, or stayed idle too long: a normal end
      return;
    }
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
    m_cmd = cmd;
    cmd->setChannel(this, (m_frame[4] & wire::kFlagJsonBody) != 0);
    guarded(cmd, [&] { cmd->readReq(); });
  }

  // Answers with a refusal, then drains what the client still sends until it
  // closes, so that the refusal is read rather than lost to a reset.
  void refuse(std::string const& why) {
    m_refusing = true;
    // A refused connection only lingers: it no longer counts against
    // maxConnections.
    if (m_holdsSlot) {
      m_holdsSlot = false;
      m_core->releaseSlot();
    }
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

  void drain() {
    m_stream.socket().async_read_some(boost::asio::buffer(m_drain),
                             [self = shared_from_this()](boost::system::error_code ec, std::size_t) {
                               if (ec) self->close();
                               else self->drain();
                             });
  }

  void close() {
    m_closed = true;
    m_deadline.cancel();
    m_stream.close();
  }

  std::shared_ptr<CmdServer::Core> const m_core;
  Strand const m_strand;
  std::string const m_peer;

  // Used on the strand only.
  transport::BufferedStream m_stream;
  transport::Deadline m_deadline;  // of the operation in progress
  std::array<unsigned char, wire::kHelloSize> m_hello{};
  std::array<unsigned char, wire::kFrameSize> m_frame{};
  unsigned char m_okFrame[wire::kFrameSize] = {};
  std::string m_refusal;
  std::array<char, 4096> m_drain{};
  std::shared_ptr<CmdI> m_cmd;  // the command of the exchange in progress
  PendingOp m_op;               // the operation of m_cmd in progress
  bool m_okPending = false;     // the ok status frame is still to be written
  bool m_respStarted = false;   // bytes of the response have been written
  bool m_timedOut = false;
  bool m_stopping = false;
  bool m_closed = false;
  bool m_helloDone = false;  // the hello was accepted
  bool m_refusing = false;   // a refusal was written or is being written
  bool m_holdsSlot;          // counts against maxConnections
};

}  // namespace

void CmdServer::Core::start() {
  std::vector<boost::asio::ip::address> addresses{boost::asio::ip::make_address("127.0.0.1")};
  if (!options.forceIp4) addresses.push_back(boost::asio::ip::make_address("::1"));
  std::uint16_t chosen = options.port;
  for (boost::asio::ip::address const& address : addresses) {
    auto listener = std::make_unique<Listener>(boost::asio::make_strand(io.context()));
    tcp::endpoint const ep(address, chosen);
    boost::system::error_code ec;
    boost::asio::basic_socket_acceptor<tcp, Strand>& a = listener->acceptor;
    a.open(ep.protocol(), ec);
    if (!ec && address.is_v6()) a.set_option(boost::asio::ip::v6_only(true), ec);
    if (!ec) a.set_option(boost::asio::socket_base::reuse_address(true), ec);
    if (!ec) a.bind(ep, ec);
    if (!ec) a.listen(boost::asio::socket_base::max_listen_connections, ec);
    if (ec) {
      std::string const msg = "Ipc cannot listen on " + endpointText(ep) + ": " + ec.message();
      if (address.is_v4()) throw std::runtime_error(msg);
      Log::inst().writeLine("WARNING:", msg + "; IPv4 only");  // loopback IPv6 may be switched off
      continue;
    }
    chosen = a.local_endpoint().port();
    listeners.push_back(std::move(listener));
  }
  port = chosen;
  std::lock_guard<std::mutex> lock(mutex);
  openListeners = listeners.size();
  for (auto& l : listeners) acceptNext(*l);
}

void CmdServer::Core::acceptNext(Listener& listener) {
  listener.acceptor.async_accept(
      boost::asio::make_strand(io.context()),
      [self = shared_from_this(), &listener](boost::system::error_code ec, Socket socket) {
        self->onAccept(listener, ec, std::move(socket));
      });
}

void CmdServer::Core::onAccept(Listener& listener, boost::system::error_code ec, Socket socket) {
  std::unique_lock<std::mutex> lock(mutex);
  if (stopping || ec == boost::asio::error::operation_aborted) {
    if (--openListeners == 0) ended.notify_all();
    return;
  }
  if (!ec) {
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    bool const full = admitted >= options.maxConnections;
    if (!full) ++admitted;
    auto session = std::make_shared<Session>(shared_from_this(), std::move(socket), !full);
    sessions.emplace(session.get(), session);
    lock.unlock();
    boost::asio::post(session->strand(), [session, full, max = options.maxConnections] {
      if (full) session->refuseAtOnce("too many connections (" + std::to_string(max) + ")");
      else session->start();
    });
  } else {
    lock.unlock();
    Log::inst().writeLine("ERR:", "Ipc accepting a connection failed: " + ec.message());
  }
  acceptNext(listener);
}

void CmdServer::Core::releaseSlot() {
  std::lock_guard<std::mutex> lock(mutex);
  --admitted;
}

void CmdServer::Core::sessionEnded(Session* session, bool heldSlot) {
  std::lock_guard<std::mutex> lock(mutex);
  if (heldSlot) --admitted;
  sessions.erase(session);
  if (sessions.empty()) ended.notify_all();
}

void CmdServer::Core::stop() {
  std::vector<std::shared_ptr<Session>> open;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (stopping) return;
    stopping = true;
    for (auto& entry : sessions) {
      if (auto s = entry.second.lock()) open.push_back(std::move(s));
    }
  }
  for (auto& l : listeners) {
    boost::asio::post(l->strand, [l = l.get()] {
      boost::system::error_code ignored;
      l->acceptor.close(ignored);
    });
  }
  for (auto& s : open) boost::asio::post(s->strand(), [s] { s->stop(); });
  open.clear();
  std::unique_lock<std::mutex> lock(mutex);
  ended.wait(lock, [this] { return sessions.empty() && openListeners == 0; });
}

CmdServer::CmdServer(IoThreads& io, CmdServerOptions options, SecretToken token,
                     CmdFactory factory, std::shared_ptr<CmdProcessorI> processor)
    : m_core(std::make_shared<Core>(io, options, token, std::move(factory),
                                    std::move(processor))) {}

CmdServer::~CmdServer() { stop(); }

void CmdServer::start() { m_core->start(); }

std::uint16_t CmdServer::port() const { return m_core->port; }

std::size_t CmdServer::connectionCount() const { return m_core->count(); }

void CmdServer::stop() { m_core->stop(); }

}  // namespace Ipc
