#include "shared/CmdServer.h"

#include "shared/Log.h"
#include "shared/transport/ServerCore.h"
#include "shared/transport/ServerSession.h"

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>

#include <stdexcept>

namespace Ipc {

using boost::asio::ip::tcp;
using transport::MutexLock;
using transport::ServerSession;
using transport::Socket;
using transport::Strand;

namespace {

// An accept that fails (no descriptor left, most often) is retried only
// after a pause, and reported at most once per interval: a flood of
// connections must not make the service spin or fill its log.
constexpr std::chrono::milliseconds kAcceptBackoff{100};
constexpr std::chrono::seconds kAcceptReportInterval{1};

}  // namespace

std::string endpointText(tcp::endpoint const& ep) {
  boost::asio::ip::address const a = ep.address();
  std::string const host = a.is_v6() ? "[" + a.to_string() + "]" : a.to_string();
  return host + ":" + std::to_string(ep.port());
}

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
  MutexLock lock(mutex);
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
  MutexLock lock(mutex);
  if (stopping || ec == boost::asio::error::operation_aborted) {
    if (--openListeners == 0) ended.notifyAll();
    return;
  }
  if (!ec) {
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    bool const full = admitted >= options.maxConnections;
    if (!full) ++admitted;
    auto session = std::make_shared<ServerSession>(shared_from_this(), std::move(socket), !full);
    sessions.emplace(session.get(), session);
    lock.unlock();
    boost::asio::post(session->strand(), [session, full, max = options.maxConnections] {
      if (full) session->refuseAtOnce("too many connections (" + std::to_string(max) + ")");
      else session->start();
    });
    acceptNext(listener);
    return;
  }
  std::string const line = acceptFailureLine(ec);
  lock.unlock();
  if (!line.empty()) Log::inst().writeLine("ERR:", line);
  // Whatever ends the wait (its time, or stop() closing the listener), the
  // next accept runs: after a close it fails at once and ends the listener.
  listener.backoff.expires_after(kAcceptBackoff);
  listener.backoff.async_wait(
      [self = shared_from_this(), &listener](boost::system::error_code) { self->acceptNext(listener); });
}

std::string CmdServer::Core::acceptFailureLine(boost::system::error_code ec) {
  auto const now = std::chrono::steady_clock::now();
  bool const reportedLately = lastAcceptReport != std::chrono::steady_clock::time_point() &&
                              now - lastAcceptReport < kAcceptReportInterval;
  if (reportedLately) {
    ++unreportedAcceptFailures;
    return std::string();
  }
  std::string line = "Ipc accepting a connection failed: " + ec.message();
  if (unreportedAcceptFailures > 0) {
    line += " (and " + std::to_string(unreportedAcceptFailures) + " more times since the last report)";
  }
  unreportedAcceptFailures = 0;
  lastAcceptReport = now;
  return line;
}

void CmdServer::Core::releaseSlot() {
  MutexLock lock(mutex);
  --admitted;
}

void CmdServer::Core::sessionEnded(ServerSession* session, bool heldSlot) {
  MutexLock lock(mutex);
  if (heldSlot) --admitted;
  sessions.erase(session);
  if (sessions.empty()) ended.notifyAll();
}

std::size_t CmdServer::Core::count() const {
  MutexLock lock(mutex);
  return sessions.size();
}

void CmdServer::Core::stop() {
  std::vector<std::shared_ptr<ServerSession>> open;
  {
    MutexLock lock(mutex);
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
      l->backoff.cancel();
    });
  }
  for (auto& s : open) boost::asio::post(s->strand(), [s] { s->stop(); });
  // Our references go before the mutex is taken: when one of them is the
  // last, ~ServerSession runs here and takes the mutex itself
  // (sessionEnded), which would deadlock under the lock below.
  open.clear();
  MutexLock lock(mutex);
  while (!sessions.empty() || openListeners != 0) ended.wait(mutex);
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
