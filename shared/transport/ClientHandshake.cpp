// The connection of a CmdClient: resolving, connecting, the handshake in
// which each side proves the token without sending it, and reading the
// service's status answers (to the handshake and to each request).
#include "shared/transport/ClientConn.h"

#include <sys/socket.h>

#include <boost/asio/connect.hpp>

#include <cerrno>
#include <cstring>
#include <exception>

namespace Ipc {

using boost::asio::ip::tcp;

std::string CmdClient::Conn::where() const {
  bool const ip6 = m_options.host.find(':') != std::string::npos;
  return (ip6 ? "[" + m_options.host + "]" : m_options.host) + ":" + std::to_string(m_options.port);
}

// A service that closed an idle connection has left an end of file to be
// read.
bool CmdClient::Conn::stillOpen() {
  if (m_state != State::Ready || !m_stream.socket().is_open()) return false;
  char c;
  ssize_t const n = ::recv(m_stream.socket().native_handle(), &c, 1, MSG_PEEK | MSG_DONTWAIT);
  return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

void CmdClient::Conn::connect() {
  if (!transition(State::Connecting)) return;
  closeSocket();
  m_stream.renew();  // each connection gets a socket object of its own
  arm(m_options.connectTimeout);
  boost::system::error_code ec;
  boost::asio::ip::address const address = boost::asio::ip::make_address(m_options.host, ec);
  if (!ec) {
    m_stream.socket().async_connect(
        tcp::endpoint(address, m_options.port),
        m_exchange.bind([self = shared_from_this(), sock = m_stream.socketHandle()](
                            boost::system::error_code ec) { self->onConnected(ec); }));
    return;
  }
  m_resolver.async_resolve(
      m_options.host, std::to_string(m_options.port),
      m_exchange.bind([self = shared_from_this(), sock = m_stream.socketHandle()](
                          boost::system::error_code ec, tcp::resolver::results_type results) {
        if (ec) {
          self->connectFailed(ec);
          return;
        }
        boost::asio::async_connect(
            *sock, results,
            self->m_exchange.bind([self, sock](boost::system::error_code ec, tcp::endpoint const&) {
              self->onConnected(ec);
            }));
      }));
}

void CmdClient::Conn::connectFailed(boost::system::error_code ec) {
  std::string const why =
      m_timedOut ? "no answer within " + transport::durationText(m_deadline.limit()) : ec.message();
  transferError("Ipc cannot connect to the service at " + where() + ": " + why);
}

void CmdClient::Conn::onConnected(boost::system::error_code ec) {
  if (ec) {
    connectFailed(ec);
    return;
  }
  if (!transition(State::Hello)) return;
  ++m_connectionsMade;
  boost::system::error_code ignored;
  m_stream.socket().set_option(tcp::no_delay(true), ignored);
  try {
    m_clientNonce = transport::handshake::freshNonce();
  } catch (std::exception const& e) {
    transferError(e.what());
    return;
  }
  wire::putHello(m_hello, m_clientNonce);
  sendHandshake(boost::asio::buffer(m_hello), [this] {
    m_stream.read(m_challenge, sizeof m_challenge, shared_from_this(),
                  m_exchange.bind([this](boost::system::error_code ec) { onChallenge(ec); }));
  });
}

// Sends one message of the handshake, then reads the service's status frame:
// next runs when it says ok; a failed write or a refusal ends the connection.
void CmdClient::Conn::sendHandshake(boost::asio::const_buffer message, std::function<void()> next) {
  m_stream.drive([&] {
    m_stream.write(message, boost::asio::const_buffer(), shared_from_this(),
                   m_exchange.bind([this, next](boost::system::error_code ec) {
                     if (ec) {
                       connectFailed(ec);
                       return;
                     }
                     readStatus([this, next](std::string const& refusal) {
                       if (!refusal.empty()) {
                         transferError(refusal);
                         return;
                       }
                       next();
                     });
                   }));
  });
}

// The service's nonce and proof. Nothing derived from the token goes out
// before that proof holds: whoever listens on the port without the token
// learns our nonce and nothing else.
void CmdClient::Conn::onChallenge(boost::system::error_code ec) {
  namespace hs = transport::handshake;
  if (ec) {
    transferError("Ipc " + name() + ": " + ioErrorText(ec));
    return;
  }
  hs::Nonce serviceNonce;
  std::memcpy(serviceNonce.data(), m_challenge, serviceNonce.size());
  if (!hs::verify(m_token, hs::Role::Service, wire::kVersion, m_clientNonce, serviceNonce,
                  m_challenge + wire::kNonceSize)) {
    std::string const file = m_options.tokenFile.empty() ? std::string() : " of \"" + m_options.tokenFile + "\"";
    transferError("Ipc the service on port " + std::to_string(m_options.port) +
                  " could not prove that it holds the token" + file);
    return;
  }
  if (!transition(State::Proving)) return;
  m_proof = hs::prove(m_token, hs::Role::Client, wire::kVersion, m_clientNonce, serviceNonce);
  sendHandshake(boost::asio::buffer(m_proof), [this] { beginExchange(); });
}

// Reads a status frame; calls then with the empty string when it says ok,
// or with the service's refusal. Errors of the connection are reported
// directly.
void CmdClient::Conn::readStatus(std::function<void(std::string const&)> then) {
  m_stream.read(
      m_status, sizeof m_status, shared_from_this(), m_exchange.bind([this, then](boost::system::error_code ec) {
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
        transition(State::Refused);
        m_message.assign(len, '\0');
        m_stream.read(&m_message[0], len, shared_from_this(),
                      m_exchange.bind([this, then](boost::system::error_code ec) {
                        if (ec) {
                          transferError("Ipc " + name() + ": " + ioErrorText(ec));
                          return;
                        }
                        then(m_message);
                      }));
      }));
}

}  // namespace Ipc
