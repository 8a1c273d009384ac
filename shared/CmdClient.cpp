#include "shared/CmdClient.h"

#include "shared/transport/AsioTypes.h"
#include "shared/transport/BufferedStream.h"
#include "shared/transport/Deadline.h"
#include "shared/transport/PendingOp.h"
#include "shared/transport/Wire.h"

#include <sys/socket.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <future>

namespace Ipc {

using boost::asio::ip::tcp;
using transport::Socket;
using transport::Strand;
using transport::PendingOp;

namespace {
// Many records of a configuration test at once.
constexpr std::size_t kReadAhead = 64 * 1024;
}  // namespace

class CmdClient::Conn final : public CmdChannel, public std::enable_shared_from_this<Conn> {
 public:
  // callerDriven: only the thread in CmdClient::run() runs the context.
  Conn(boost::asio::io_context& context, CmdClientOptions options, SecretToken token, bool callerDriven)
      : m_options(std::move(options)),
        m_token(token),
        m_callerDriven(callerDriven),
        m_strand(boost::asio::make_strand(context)),
        m_stream(m_strand, kReadAhead),
        m_deadline(m_strand,
                   std::min({m_options.connectTimeout, m_options.quickTimeout, m_options.longTimeout,
                             m_options.transferTimeout}),
                   [this] { onDeadline(); }),
        m_resolver(m_strand) {}

  std::chrono::milliseconds timeoutFor(int id) const {
    switch (id) {
      case CmdI::TIMEOUT_LONG: return m_options.longTimeout;
      case CmdI::TIMEOUT_TRANSFER: return m_options.transferTimeout;
      default: return m_options.quickTimeout;
    }
  }

  std::size_t connectionsMade() const { return m_connectionsMade.load(); }
  void post(std::function<void()> f) { boost::asio::post(m_strand, std::move(f)); }
  std::uint64_t bytesSent() const { return m_stream.bytesWritten(); }

  // Queues cmd, and starts it when nothing runs. A client with threads
  // does it on its strand; a client without threads does it at once (its
  // caller's thread alone touches it), and starts only when start is set:
  // from run().
  void enqueue(std::shared_ptr<CmdI> cmd, Completion done, bool start = true) {
    auto add = [self = shared_from_this(), cmd = std::move(cmd), done = std::move(done), start] {
      if (self->m_closing) {
        Pending p{cmd, done};
        self->failClosing(p);
        return;
      }
      self->m_queue.push_back(Pending{cmd, done});
      if (start && !self->m_current.cmd) self->m_stream.drive([&] { self->startNext(); });
    };
    if (m_callerDriven) {
      add();
    } else {
      boost::asio::post(m_strand, std::move(add));
    }
  }

  // Fails what is pending and closes the connection; returns when done.
  void close() {
    auto work = [self = shared_from_this()] {
      self->m_closing = true;
      std::deque<Pending> all;
      all.swap(self->m_queue);
      if (self->m_current.cmd) all.push_front(std::move(self->m_current));
      self->m_current = Pending();
      self->m_op = PendingOp();
      self->closeSocket();
      self->m_resolver.cancel();
      for (Pending& p : all) self->failClosing(p);
    };
    if (m_callerDriven || m_strand.running_in_this_thread()) {
      work();
      return;
    }
    std::promise<void> closed;
    boost::asio::post(m_strand, [&closed, work] {
      work();
      closed.set_value();
    });
    closed.get_future().wait();
  }

  // CmdChannel

  void reqDone(std::shared_ptr<CmdI> const& cmd) override {
    if (cmd != m_current.cmd) return;
    m_reqSent = true;
    arm(timeoutFor(cmd->reqTimeoutId()));
    if (m_statusOk) readResponse(cmd);
  }

  void failCmd(std::shared_ptr<CmdI> const& cmd, std::string const& why) override {
    if (cmd != m_current.cmd) return;
    // The stream may be anywhere in the exchange: a new command reconnects.
    closeSocket();
    finishCurrent(why);
  }

  void finishCmd(std::shared_ptr<CmdI> const& cmd) override {
    if (cmd != m_current.cmd) return;
    m_deadline.clear();
    finishCurrent(std::string());
  }

  void writeAsync(std::shared_ptr<CmdI> const& cmd, void const* data, std::size_t len,
                  std::function<void()> done) override {
    m_op = PendingOp{cmd, std::move(done)};
    m_stream.write(boost::asio::buffer(data, len), boost::asio::const_buffer(), shared_from_this(),
                   [this, serial = m_serial](boost::system::error_code ec) {
                     if (serial != m_serial || m_closing) return;
                     if (ec && m_statusReadPending) {
                       // The service may have refused the request while it
                       // was being sent: its message is on its way, and is
                       // the better reason to give.
                       m_writeError = ioErrorText(ec);
                       return;
                     }
                     onOp(ec);
                   });
  }

  void readAsync(std::shared_ptr<CmdI> const& cmd, void* buf, std::size_t len,
                 std::function<void()> done) override {
    m_op = PendingOp{cmd, std::move(done)};
    m_stream.read(buf, len, shared_from_this(), [this, serial = m_serial](boost::system::error_code ec) {
      if (serial != m_serial || m_closing) return;
      onOp(ec);
    });
  }

 private:
  struct Pending {
    std::shared_ptr<CmdI> cmd;
    Completion done;
  };

  // "127.0.0.1:5000", "[::1]:5000".
  std::string where() const {
    bool const ip6 = m_options.host.find(':') != std::string::npos;
    return (ip6 ? "[" + m_options.host + "]" : m_options.host) + ":" + std::to_string(m_options.port);
  }

  std::string name() const { return m_current.cmd ? m_current.cmd->name() : "command"; }

  void arm(std::chrono::milliseconds limit) {
    m_deadline.arm(limit, [this] { return shared_from_this(); });
  }

  void onDeadline() {
    if (!m_current.cmd || m_closing) return;  // nothing runs
    m_timedOut = true;
    closeSocket();
  }

  std::string ioErrorText(boost::system::error_code ec) const {
    if (m_timedOut) return "timed out: no byte moved for " + transport::durationText(m_deadline.limit());
    if (ec == boost::asio::error::eof) return "the service closed the connection";
    return ec.message();
  }

  // Reports why to the command, which ends the exchange through failCmd.
  void transferError(std::string const& why) {
    std::shared_ptr<CmdI> const cmd = m_current.cmd;
    if (!cmd) return;
    {
      IoThreads::Busy busy;
      cmd->onTransferError(why);
    }
    if (cmd == m_current.cmd) failCmd(cmd, why);  // an override that did not end it
  }

  template <class F>
  void guarded(std::shared_ptr<CmdI> const& cmd, F&& f) {
    IoThreads::Busy busy;
    try {
      f();
    } catch (std::exception const& e) {
      if (cmd == m_current.cmd) transferError("Ipc " + std::string(cmd->name()) + " failed: " + e.what());
    }
  }

  // The operation of the command ended.
  void onOp(boost::system::error_code ec) {
    PendingOp const op = m_op.take();
    onIo(ec, op.cmd, op.done);
  }

  void onIo(boost::system::error_code ec, std::shared_ptr<CmdI> const& cmd,
            std::function<void()> const& done) {
    if (cmd != m_current.cmd) return;
    if (ec) {
      transferError("Ipc " + std::string(cmd->name()) + ": " + ioErrorText(ec));
      return;
    }
    arm(timeoutFor(cmd->reqTimeoutId()));
    guarded(cmd, done);
  }

  void complete(Pending& p, std::string const& error) {
    IoThreads::Busy busy;
    try {
      p.done(p.cmd, error);
    } catch (...) {
      // A completion's own failure must not stop the client.
    }
  }

  // Fails a command that the closing client will not run or finish: its
  // onTransferError and then its completion learn why, as for any failed
  // exchange. The channel is detached first, so the frame's onTransferError
  // only records the reason.
  void failClosing(Pending& p) {
    std::string const why = "Ipc the client is closing";
    p.cmd->setChannel(nullptr);
    try {
      IoThreads::Busy busy;
      p.cmd->onTransferError(why);
    } catch (...) {
      // The completion must still run.
    }
    complete(p, why);
  }

  void finishCurrent(std::string const& error) {
    Pending p = std::move(m_current);
    m_current = Pending();
    ++m_serial;
    m_op = PendingOp();  // an operation the failure left behind
    p.cmd->setChannel(nullptr);
    complete(p, error);
    if (!m_closing) startNext();
  }

  void closeSocket() {
    m_connected = false;
    m_deadline.cancel();  // no deadline until the next exchange arms one
    m_stream.close();
  }

  // Whether the connection still stands: a service that closed an idle
  // connection has left an end of file to be read.
  bool stillOpen() {
    if (!m_connected || !m_stream.socket().is_open()) return false;
    char c;
    ssize_t const n = ::recv(m_stream.socket().native_handle(), &c, 1, MSG_PEEK | MSG_DONTWAIT);
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  }

  void startNext() {
    if (m_queue.empty() || m_closing) return;
    m_current = std::move(m_queue.front());
    m_queue.pop_front();
    ++m_serial;
    m_timedOut = false;
    m_writeError.clear();  // a reason left by an earlier exchange is not this one's
    m_current.cmd->setChannel(this);
    if (stillOpen()) {
      beginExchange();
    } else {
      connect();
    }
  }

  void connect() {
    closeSocket();
    m_stream.renew();  // each connection gets a socket object of its own
    arm(m_options.connectTimeout);
    boost::system::error_code ec;
    boost::asio::ip::address const address = boost::asio::ip::make_address(m_options.host, ec);
    if (!ec) {
      m_stream.socket().async_connect(
          tcp::endpoint(address, m_options.port),
          [self = shared_from_this(), sock = m_stream.socketHandle(), serial = m_serial](boost::system::error_code ec) {
            if (serial != self->m_serial || self->m_closing) return;
            self->onConnected(ec);
          });
      return;
    }
    m_resolver.async_resolve(
        m_options.host, std::to_string(m_options.port),
        [self = shared_from_this(), sock = m_stream.socketHandle(), serial = m_serial](
            boost::system::error_code ec, tcp::resolver::results_type results) {
          if (serial != self->m_serial || self->m_closing) return;
          if (ec) {
            self->connectFailed(ec);
            return;
          }
          boost::asio::async_connect(*sock, results,
                            [self, sock, serial](boost::system::error_code ec, tcp::endpoint const&) {
                              if (serial != self->m_serial || self->m_closing) return;
                              self->onConnected(ec);
                            });
        });
  }

  void connectFailed(boost::system::error_code ec) {
    std::string const why =
        m_timedOut ? "no answer within " + transport::durationText(m_deadline.limit()) : ec.message();
    transferError("Ipc cannot connect to the service at " + where() + ": " + why);
  }

  void onConnected(boost::system::error_code ec) {
    if (ec) {
      connectFailed(ec);
      return;
    }
    ++m_connectionsMade;
    boost::system::error_code ignored;
    m_stream.socket().set_option(tcp::no_delay(true), ignored);
    wire::putHello(m_hello, m_token.data());
    m_stream.drive([&] {
      m_stream.write(boost::asio::buffer(m_hello), boost::asio::const_buffer(), shared_from_this(),
                     [this, serial = m_serial](boost::system::error_code ec) {
                       if (serial != m_serial || m_closing) return;
                       if (ec) {
                         connectFailed(ec);
                         return;
                       }
                       readStatus([this](std::string const& refusal) {
                         if (!refusal.empty()) {
                           transferError(refusal);
                           return;
                         }
                         m_connected = true;
                         beginExchange();
                       });
                     });
    });
  }

  // Reads a status frame; calls then with the empty string when it says ok,
  // or with the service's refusal. Errors of the connection are reported
  // directly.
  void readStatus(std::function<void(std::string const&)> then) {
    m_statusReadPending = true;
    m_stream.read(
        m_status, sizeof m_status, shared_from_this(),
        [this, serial = m_serial, then](boost::system::error_code ec) {
          if (serial != m_serial || m_closing) return;
          m_statusReadPending = false;
          if (ec) {
            std::string const why = !m_writeError.empty() ? m_writeError : ioErrorText(ec);
            transferError("Ipc " + name() + ": " + why);
            return;
          }
          std::string const bad = wire::checkFrameStart(m_status);
          if (!bad.empty()) {
            transferError("Ipc " + name() + ": the service answered with " + bad);
            return;
          }
          if (m_status[3] == wire::kStatusOk) {
            then(std::string());
            return;
          }
          std::uint32_t const len = wire::getU32(m_status + 4);
          if (len == 0 || len > wire::kMaxMessage) {
            transferError("Ipc " + name() + ": the service refused it without a reason");
            return;
          }
          m_message.assign(len, '\0');
          m_stream.read(&m_message[0], len, shared_from_this(),
                        [this, serial, then](boost::system::error_code ec) {
                          if (serial != m_serial || m_closing) return;
                          if (ec) {
                            transferError("Ipc " + name() + ": " + ioErrorText(ec));
                            return;
                          }
                          then(m_message);
                        });
        });
  }

  void beginExchange() {
    std::shared_ptr<CmdI> const cmd = m_current.cmd;
    m_reqSent = false;
    m_statusOk = false;
    m_writeError.clear();
    arm(timeoutFor(cmd->reqTimeoutId()));
    // The status is read while the request is written, so that a refusal
    // that comes early (a drop that the service cannot store) stops the
    // sending at once.
    readStatus([this, cmd](std::string const& refusal) {
      if (cmd != m_current.cmd) return;
      if (!refusal.empty()) {
        transferError(refusal);
        return;
      }
      m_statusOk = true;
      if (m_reqSent) readResponse(cmd);
    });
    guarded(cmd, [&] { cmd->sendReq(); });
  }

  void readResponse(std::shared_ptr<CmdI> const& cmd) {
    guarded(cmd, [&] { cmd->readResp(); });
  }

  CmdClientOptions const m_options;
  SecretToken const m_token;
  bool const m_callerDriven;
  Strand const m_strand;
  std::atomic<std::size_t> m_connectionsMade{0};

  // Used on the strand only, but for m_stream.bytesWritten().
  // The connection of now (see connect()).
  transport::BufferedStream m_stream;
  transport::Deadline m_deadline;  // of the exchange in progress
  tcp::resolver::rebind_executor<Strand>::other m_resolver;
  std::deque<Pending> m_queue;
  Pending m_current;               // the exchange in progress
  PendingOp m_op;                  // the operation of m_current.cmd in progress
  std::uint64_t m_serial = 0;      // tells handlers of an ended exchange apart
  unsigned char m_hello[wire::kHelloSize] = {};
  unsigned char m_status[wire::kFrameSize] = {};
  std::string m_message;           // a refusal being read
  std::string m_writeError;        // a write failure while the status was awaited
  bool m_connected = false;
  bool m_reqSent = false;
  bool m_statusOk = false;
  bool m_statusReadPending = false;
  bool m_timedOut = false;
  bool m_closing = false;
};

CmdClient::CmdClient(IoThreads& io, CmdClientOptions options, SecretToken token)
    : m_conn(std::make_shared<Conn>(io.context(), std::move(options), token, false)) {}

CmdClient::CmdClient(CmdClientOptions options, SecretToken token)
    : m_ownContext(std::make_unique<boost::asio::io_context>(1)),
      m_conn(std::make_shared<Conn>(*m_ownContext, std::move(options), token, true)) {}

CmdClient::~CmdClient() {
  m_conn->close();
  if (m_ownContext) {
    // The handlers that the close cancelled let go of the connection here.
    m_ownContext->restart();
    m_ownContext->poll();
  }
}

void CmdClient::execute(std::shared_ptr<CmdI> cmd, Completion done) {
  m_conn->enqueue(std::move(cmd), std::move(done), !m_ownContext);
}

std::string CmdClient::run(std::shared_ptr<CmdI> cmd) {
  if (m_ownContext) {
    std::string error;
    bool done = false;
    m_conn->enqueue(
        std::move(cmd),
        [&error, &done](std::shared_ptr<CmdI> const&, std::string const& e) {
          error = e;
          done = true;
        });
    m_ownContext->restart();
    while (!done && m_ownContext->run_one() > 0) {
    }
    // An exchange that completed leaves no operation behind; a failed one
    // may leave cancelled operations, whose handlers hold the command until
    // they run: they run now.
    if (!done || !error.empty()) m_ownContext->poll();
    return done ? error : "Ipc the client stopped before the command completed";
  }
  std::promise<std::string> result;
  std::future<std::string> done = result.get_future();
  std::shared_ptr<Conn> const conn = m_conn;
  execute(std::move(cmd), [&result, conn](std::shared_ptr<CmdI> const&, std::string const& error) {
    // The caller is woken only from a later handler, once the handlers of
    // this exchange have let go of the command: the caller's thread then
    // holds its last reference, and its JSON documents are the caller's
    // alone again (their reference counts are not atomic).
    conn->post([&result, error] { result.set_value(error); });
  });
  return done.get();
}

std::chrono::milliseconds CmdClient::timeoutFor(int id) const { return m_conn->timeoutFor(id); }

std::size_t CmdClient::connectionsMade() const { return m_conn->connectionsMade(); }

std::uint64_t CmdClient::bytesSent() const { return m_conn->bytesSent(); }

}  // namespace Ipc
