#include "shared/CmdServer.h"

#include "shared/Log.h"
#include "shared/transport/ServerCore.h"
#include "shared/transport/ServerSession.h"

#include <sys/ioctl.h>

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>
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
// Likewise the unproved connections that give way to newer ones.
constexpr std::chrono::seconds kRefusalReportInterval{1};
// Lines a second about connections that said nothing; a flood's others are
// counted.
constexpr std::size_t kSilentBurst = 10;
// An unproved connection holds its place at least this long before it gives
// way: a flood then turns the places over at most 16 times in that time,
// however fast it reconnects, while a client (which sends its hello as soon
// as it has connected) still waits in the backlog far less than a second.
constexpr std::chrono::milliseconds kShortestTurn{3};

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
    int const fd = socket.native_handle();
    auto session = std::make_shared<ServerSession>(shared_from_this(), std::move(socket));
    Entry& entry = sessions[session.get()];
    entry.session = session;
    entry.fd = fd;
    entry.accepted = std::chrono::steady_clock::now();
    // A new connection takes the place of the oldest unproved one rather
    // than being refused: under a flood of silent connections, a client
    // that just connected then gets its turn to prove the token.
    std::shared_ptr<ServerSession> givesWay;
    bool const full = admitted >= options.maxConnections;
    if (unproved.size() >= unprovedCap() || (full && !unproved.empty())) {
      ServerSession* const oldest = givingWayChoice();
      Entry& old = sessions.at(oldest);
      givesWay = old.session.lock();  // null when it is ending anyway
      setPlace(oldest, old, Place::None);
      setPlace(session.get(), entry, Place::Silent);
    } else if (!full) {
      setPlace(session.get(), entry, Place::Silent);
    }
    bool const refused = entry.place == Place::None;
    std::chrono::steady_clock::duration const pause = pauseBeforeGivingWay();
    lock.unlock();
    if (givesWay) boost::asio::post(givesWay->strand(), [givesWay] { givesWay->giveWay(); });
    boost::asio::post(session->strand(), [session, refused, max = options.maxConnections] {
      if (refused) session->refuseAtOnce("too many connections (" + std::to_string(max) + ")");
      else session->start();
    });
    if (pause <= std::chrono::steady_clock::duration::zero()) {
      acceptNext(listener);
      return;
    }
    // The connections wait in the system's backlog meanwhile, where a
    // client's hello arrives before it is accepted.
    listener.backoff.expires_after(pause);
    listener.backoff.async_wait(
        [self = shared_from_this(), &listener](boost::system::error_code) { self->acceptNext(listener); });
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

std::string CmdServer::Core::ReportThrottle::line(std::string text, std::chrono::steady_clock::duration interval,
                                                  std::size_t burst) {
  auto const now = std::chrono::steady_clock::now();
  if (windowStart == std::chrono::steady_clock::time_point() || now - windowStart >= interval) {
    windowStart = now;
    linesInWindow = 0;
  }
  if (linesInWindow >= burst) {
    ++unreported;
    return std::string();
  }
  ++linesInWindow;
  if (unreported > 0) text += " (and " + std::to_string(unreported) + " more times since the last report)";
  unreported = 0;
  return text;
}

std::string CmdServer::Core::acceptFailureLine(boost::system::error_code ec) {
  return acceptFailures.line("Ipc accepting a connection failed: " + ec.message(), kAcceptReportInterval);
}

std::string CmdServer::Core::givingWayText() const {
  return "too many connections that have not proved the token (" + std::to_string(unprovedCap()) +
         "); the oldest gives way";
}

std::string CmdServer::Core::givingWayLine(std::string const& peer) {
  MutexLock lock(mutex);
  return givingWay.line("Ipc connection from " + peer + " refused: " + givingWayText(), kRefusalReportInterval);
}

std::string CmdServer::Core::silentRefusalLine(std::string const& peer, std::string const& why) {
  MutexLock lock(mutex);
  return silentRefusals.line("Ipc connection from " + peer + " refused: " + why, kRefusalReportInterval, kSilentBurst);
}

std::size_t CmdServer::Core::unprovedCap() const {
  return std::max<std::size_t>(1, std::min(options.maxUnprovedConnections, options.maxConnections));
}

void CmdServer::Core::setPlace(ServerSession* session, Entry& entry, Place to) {
  auto const isUnproved = [](Place p) { return p == Place::Silent || p == Place::Hello; };
  if (entry.place == to) return;
  if (entry.place == Place::None) ++admitted;
  if (to == Place::None) --admitted;
  if (isUnproved(entry.place) && !isUnproved(to)) unproved.erase(entry.unprovedAt);
  if (!isUnproved(entry.place) && isUnproved(to)) entry.unprovedAt = unproved.insert(unproved.end(), session);
  entry.place = to;
}

ServerSession* CmdServer::Core::givingWayChoice() const {
  // The descriptor is only asked, never used: should its session have
  // closed it meanwhile (and the number gone to another socket), the worst
  // is a worse choice.
  auto const bytesWait = [](int fd) {
    int n = 0;
    return ::ioctl(fd, FIONREAD, &n) == 0 && n > 0;
  };
  ServerSession* oldestSilent = nullptr;
  for (ServerSession* s : unproved) {
    Entry const& entry = sessions.at(s);
    if (entry.place != Place::Silent) continue;
    if (!bytesWait(entry.fd)) return s;
    if (!oldestSilent) oldestSilent = s;
  }
  return oldestSilent ? oldestSilent : unproved.front();
}

std::chrono::steady_clock::duration CmdServer::Core::pauseBeforeGivingWay() const {
  if (unproved.size() < unprovedCap()) return std::chrono::steady_clock::duration::zero();
  Entry const& next = sessions.at(givingWayChoice());
  return next.accepted + kShortestTurn - std::chrono::steady_clock::now();
}

void CmdServer::Core::helloHeard(ServerSession* session) {
  MutexLock lock(mutex);
  Entry& entry = sessions.at(session);
  if (entry.place == Place::Silent) setPlace(session, entry, Place::Hello);
}

bool CmdServer::Core::proved(ServerSession* session) {
  MutexLock lock(mutex);
  Entry& entry = sessions.at(session);
  if (entry.place == Place::None) return false;
  setPlace(session, entry, Place::Proved);
  return true;
}

void CmdServer::Core::releasePlace(ServerSession* session) {
  MutexLock lock(mutex);
  setPlace(session, sessions.at(session), Place::None);
}

void CmdServer::Core::sessionEnded(ServerSession* session) {
  MutexLock lock(mutex);
  auto const at = sessions.find(session);
  setPlace(session, at->second, Place::None);
  sessions.erase(at);
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
      if (auto s = entry.second.session.lock()) open.push_back(std::move(s));
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
