#include "shared/CmdClient.h"

#include "shared/transport/ClientConn.h"

#include <boost/asio/post.hpp>

#include <algorithm>
#include <cassert>
#include <future>

namespace Ipc {

namespace {
// Many records of a configuration test at once.
constexpr std::size_t kReadAhead = 64 * 1024;
}  // namespace

using Conn = CmdClient::Conn;
using transport::Exchange;

Conn::Conn(boost::asio::io_context& context, CmdClientOptions options, SecretToken token, bool callerDriven)
    : m_options(std::move(options)),
      m_token(token),
      m_callerDriven(callerDriven),
      m_strand(boost::asio::make_strand(context)),
      m_stream(m_strand, kReadAhead),
      m_deadline(m_strand,
                 std::min({m_options.connectTimeout, m_options.quickTimeout, m_options.longTimeout,
                           m_options.transferTimeout}),
                 [this] { onDeadline(); }),
      m_resolver(m_strand) {
  // Any byte that moves puts off the deadline of the exchange in progress.
  m_stream.onBytesMoved([this] {
    if (m_exchange.active() && m_state != State::Closed) m_deadline.touch([this] { return shared_from_this(); });
  });
}

bool Conn::transition(State to) {
  // The states each state may move to. An exchange, wherever it is, may end
  // well (Ready), fail (Disconnected) or be cut short by the close.
  using S = State;
  auto bit = [](S s) { return 1u << static_cast<unsigned>(s); };
  unsigned const end = bit(S::Ready) | bit(S::Disconnected) | bit(S::Closed);
  static unsigned const allowed[] = {
      /* Disconnected */ bit(S::Connecting) | bit(S::Closed),
      /* Ready */ bit(S::Sending) | bit(S::Connecting) | bit(S::Closed),
      /* Connecting */ bit(S::Hello) | end,
      /* Hello */ bit(S::Proving) | bit(S::Refused) | end,
      /* Proving */ bit(S::Sending) | bit(S::Refused) | end,
      /* Sending */ bit(S::AwaitingStatus) | bit(S::SendingAfterOk) | bit(S::Refused) | end,
      /* AwaitingStatus */ bit(S::ReadingResponse) | bit(S::Refused) | end,
      /* SendingAfterOk */ bit(S::ReadingResponse) | end,
      /* ReadingResponse */ end,
      /* Refused */ end,
      /* Closed */ 0,
  };
  static_assert(sizeof allowed / sizeof allowed[0] == static_cast<unsigned>(S::Closed) + 1,
                "one row per state");
  if (m_state == S::Closed) return false;
  assert(allowed[static_cast<unsigned>(m_state)] & bit(to));
  m_state = to;
  return true;
}

bool Conn::awaitingStatus() const {
  return m_state == State::Hello || m_state == State::Proving || m_state == State::Sending ||
         m_state == State::AwaitingStatus;
}

std::chrono::milliseconds Conn::timeoutFor(int id) const {
  switch (id) {
    case CmdI::TIMEOUT_LONG: return m_options.longTimeout;
    case CmdI::TIMEOUT_TRANSFER: return m_options.transferTimeout;
    default: return m_options.quickTimeout;
  }
}

void Conn::post(std::function<void()> f) { boost::asio::post(m_strand, std::move(f)); }

void Conn::enqueue(std::shared_ptr<CmdI> cmd, Completion done, bool start) {
  auto add = [self = shared_from_this(), cmd = std::move(cmd), done = std::move(done), start] {
    if (self->m_state == State::Closed) {
      Pending p{cmd, done};
      self->failClosing(p);
      return;
    }
    self->m_queue.push_back(Pending{cmd, done});
    if (start && !self->m_exchange.active()) self->m_stream.drive([&] { self->startNext(); });
  };
  if (m_callerDriven) {
    add();
  } else {
    boost::asio::post(m_strand, std::move(add));
  }
}

void Conn::close() {
  auto work = [self = shared_from_this()] {
    self->transition(State::Closed);
    std::deque<Pending> all;
    all.swap(self->m_queue);
    // The exchange ends here: the completions of its operations are
    // ignored from now on.
    if (std::shared_ptr<CmdI> cmd = self->m_exchange.end()) {
      all.push_front(Pending{std::move(cmd), std::move(self->m_done)});
    }
    self->m_done = nullptr;
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

void Conn::reqDone(std::shared_ptr<CmdI> const& cmd) {
  if (!m_exchange.holds(cmd)) return;
  arm(timeoutFor(cmd->reqTimeoutId()));
  if (m_state == State::Sending) {
    transition(State::AwaitingStatus);
  } else if (m_state == State::SendingAfterOk) {
    transition(State::ReadingResponse);
    readResponse(cmd);
  }
}

void Conn::failCmd(std::shared_ptr<CmdI> const& cmd, std::string const& why) {
  if (!m_exchange.holds(cmd)) return;
  // The stream may be anywhere in the exchange: a new command reconnects.
  closeSocket();
  finishCurrent(why, State::Disconnected);
}

void Conn::finishCmd(std::shared_ptr<CmdI> const& cmd) {
  if (!m_exchange.holds(cmd)) return;
  m_deadline.clear();
  finishCurrent(std::string(), State::Ready);
}

void Conn::writeAsync(std::shared_ptr<CmdI> const& cmd, void const* data, std::size_t len,
                      std::function<void()> done) {
  m_exchange.startOp(cmd, std::move(done));
  m_stream.write(boost::asio::buffer(data, len), boost::asio::const_buffer(), shared_from_this(),
                 [this, at = m_exchange.ticket()](boost::system::error_code ec) {
                   if (!m_exchange.isCurrent(at)) return;
                   if (ec && awaitingStatus()) {
                     // The service may have refused the request while it
                     // was being sent: its message is on its way, and is
                     // the better reason to give.
                     m_writeError = ioErrorText(ec);
                     return;
                   }
                   onOp(ec);
                 });
}

void Conn::readAsync(std::shared_ptr<CmdI> const& cmd, void* buf, std::size_t len,
                     std::function<void()> done) {
  m_exchange.startOp(cmd, std::move(done));
  m_stream.read(buf, len, shared_from_this(), [this, at = m_exchange.ticket()](boost::system::error_code ec) {
    if (m_exchange.isCurrent(at)) onOp(ec);
  });
}

std::string Conn::name() const { return m_exchange.active() ? m_exchange.cmd()->name() : "command"; }

void Conn::arm(std::chrono::milliseconds limit) {
  m_deadline.arm(limit, [this] { return shared_from_this(); });
}

void Conn::onDeadline() {
  if (!m_exchange.active() || m_state == State::Closed) return;  // nothing runs
  m_timedOut = true;
  closeSocket();
}

std::string Conn::ioErrorText(boost::system::error_code ec) const {
  if (m_timedOut) return "timed out: " + transport::stalledText(m_deadline.limit());
  return transport::peerErrorText(ec, "the service");
}

// Reports why to the command, which ends the exchange through failCmd.
void Conn::transferError(std::string const& why) {
  std::shared_ptr<CmdI> const cmd = m_exchange.cmd();
  if (!cmd) return;
  m_exchange.transferFailed(cmd, why, *this);
}

template <class F>
void Conn::guarded(std::shared_ptr<CmdI> const& cmd, F&& f) {
  Exchange::guarded(*cmd, std::forward<F>(f), [&](std::string const& why) {
    if (m_exchange.holds(cmd)) transferError(why);
  });
}

// The operation of the command ended.
void Conn::onOp(boost::system::error_code ec) {
  transport::PendingOp const op = m_exchange.takeOp();
  if (ec) {
    transferError("Ipc " + std::string(op.cmd->name()) + ": " + ioErrorText(ec));
    return;
  }
  arm(timeoutFor(op.cmd->reqTimeoutId()));
  guarded(op.cmd, op.done);
}

void Conn::complete(Pending& p, std::string const& error) {
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
void Conn::failClosing(Pending& p) {
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

// Ends the exchange in progress; to says whether its connection can serve
// the next one (Ready) or not (Disconnected).
void Conn::finishCurrent(std::string const& error, State to) {
  Pending p{m_exchange.end(), std::move(m_done)};
  m_done = nullptr;
  transition(to);
  p.cmd->setChannel(nullptr);
  complete(p, error);
  startNext();
}

void Conn::closeSocket() {
  m_deadline.cancel();  // no deadline until the next exchange arms one
  m_stream.close();
}

void Conn::startNext() {
  if (m_queue.empty() || m_state == State::Closed || m_exchange.active()) return;
  Pending next = std::move(m_queue.front());
  m_queue.pop_front();
  m_exchange.begin(next.cmd);
  m_done = std::move(next.done);
  m_timedOut = false;
  m_writeError.clear();  // a reason left by an earlier exchange is not this one's
  next.cmd->setChannel(this);
  if (stillOpen()) {
    beginExchange();
  } else {
    connect();
  }
}

void Conn::beginExchange() {
  if (!transition(State::Sending)) return;
  std::shared_ptr<CmdI> const cmd = m_exchange.cmd();
  m_writeError.clear();
  arm(timeoutFor(cmd->reqTimeoutId()));
  // The status is read while the request is written, so that a refusal
  // that comes early (a drop that the service cannot store) stops the
  // sending at once.
  readStatus([this, cmd](std::string const& refusal) {
    if (!refusal.empty()) {
      transferError(refusal);
      return;
    }
    if (m_state == State::AwaitingStatus) {
      transition(State::ReadingResponse);
      readResponse(cmd);
    } else {
      transition(State::SendingAfterOk);
    }
  });
  guarded(cmd, [&] { cmd->sendReq(); });
}

void Conn::readResponse(std::shared_ptr<CmdI> const& cmd) {
  guarded(cmd, [&] { cmd->readResp(); });
}

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
