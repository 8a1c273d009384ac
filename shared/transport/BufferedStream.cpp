#include "shared/transport/BufferedStream.h"

#include <boost/asio/post.hpp>

#include <algorithm>
#include <cstring>

namespace Ipc {
namespace transport {


BufferedStream::BufferedStream(Strand const& strand, std::size_t readAhead)
    : m_strand(strand), m_readAhead(readAhead), m_socket(std::make_shared<Socket>(strand)) {}

BufferedStream::BufferedStream(Socket socket, std::size_t readAhead)
    : m_strand(socket.get_executor()),
      m_readAhead(readAhead),
      m_socket(std::make_shared<Socket>(std::move(socket))) {}

void BufferedStream::renew() {
  close();
  // The steps of a composed operation on the old object may still be
  // queued; they keep that object and fail on it, instead of carrying the
  // rest of an abandoned exchange into the new connection.
  m_socket = std::make_shared<Socket>(m_strand);
  m_generation.advance();
  m_inBegin = m_inEnd = 0;
  m_receiving = false;
  m_readThen = nullptr;
  m_readKeep.reset();
  m_ready.clear();
  m_readyHead = 0;
}

void BufferedStream::close() {
  boost::system::error_code ignored;
  m_socket->close(ignored);
}

void BufferedStream::ready(Handler then, boost::system::error_code ec, std::shared_ptr<void> keep) {
  m_ready.push_back(Ready{std::move(then), ec, std::move(keep)});
  if (m_driving) return;
  // Started outside a driving handler: run it from the strand, never from
  // within the call that started it.
  boost::asio::post(m_strand, [this, keep = m_ready.back().keep] { drive([] {}); });
}

void BufferedStream::runReady() {
  while (m_readyHead < m_ready.size()) {
    Ready r = std::move(m_ready[m_readyHead++]);
    // A completion usually makes the next one ready: with the list emptied
    // first, a stream of records reuses its first places instead of
    // growing the list by one per record.
    if (m_readyHead == m_ready.size()) {
      m_ready.clear();
      m_readyHead = 0;
    }
    r.then(r.ec);
  }
}

void BufferedStream::take() {
  std::size_t const n = std::min(m_inEnd - m_inBegin, m_readLen - m_readGot);
  std::memcpy(m_readDst + m_readGot, m_in.get() + m_inBegin, n);
  m_inBegin += n;
  m_readGot += n;
}

void BufferedStream::completeRead(boost::system::error_code ec) {
  Handler then = std::move(m_readThen);
  m_readThen = nullptr;
  std::shared_ptr<void> const keep = std::move(m_readKeep);
  m_readKeep.reset();
  then(ec);
}

void BufferedStream::read(void* dst, std::size_t len, std::shared_ptr<void> keep, Handler then) {
  m_readDst = static_cast<char*>(dst);
  m_readLen = len;
  m_readGot = 0;
  if (m_in) take();
  if (m_readGot == len) {
    ready(std::move(then), boost::system::error_code(), std::move(keep));
    return;
  }
  m_readThen = std::move(then);
  m_readKeep = std::move(keep);
  if (!m_receiving) receive();
}

void BufferedStream::receive() {
  m_receiving = true;
  std::size_t const rest = m_readLen - m_readGot;
  auto done = m_generation.bind([this, keep = m_readKeep, socket = m_socket](
                                    boost::system::error_code ec, std::size_t n, bool direct) {
    drive([&] {
      m_receiving = false;
      if (n != 0) moved();
      if (direct) {
        m_readGot += n;
      } else {
        m_inEnd += n;
        take();
      }
      if (!m_readThen) return;  // none waits (defensive: a receive runs for a read only)
      if (m_readGot == m_readLen) {
        completeRead(boost::system::error_code());
      } else if (ec) {
        completeRead(ec);
      } else {
        receive();
      }
    });
  });
  if (rest >= m_readAhead / 2) {
    // Straight into the destination, one receive at a time: each that
    // moves bytes tells the owner, and the loop above asks for the rest.
    m_socket->async_read_some(boost::asio::buffer(m_readDst + m_readGot, rest),
                              [done = std::move(done)](boost::system::error_code ec, std::size_t n) {
                                done(ec, n, true);
                              });
    return;
  }
  if (!m_in) m_in.reset(new char[m_readAhead]);
  m_inBegin = m_inEnd = 0;  // every buffered byte was taken
  m_socket->async_read_some(boost::asio::buffer(m_in.get(), m_readAhead),
                            [done = std::move(done)](boost::system::error_code ec, std::size_t n) {
                              done(ec, n, false);
                            });
}

void BufferedStream::write(boost::asio::const_buffer first, boost::asio::const_buffer second, std::shared_ptr<void> keep,
                           Handler then) {
  if (first.size() == 0) std::swap(first, second);
  if (second.size() != 0 && first.size() + second.size() <= sizeof m_joined) {
    // Small pieces go out in one plain send, copied together.
    std::memcpy(m_joined, first.data(), first.size());
    std::memcpy(m_joined + first.size(), second.data(), second.size());
    first = boost::asio::buffer(m_joined, first.size() + second.size());
    second = boost::asio::const_buffer();
  }
  std::array<boost::asio::const_buffer, 2> buffers{first, second};
  boost::system::error_code ec;
  if (!m_socket->is_open()) {
    ec = boost::asio::error::bad_descriptor;
  } else if (!m_socket->non_blocking()) {
    m_socket->non_blocking(true, ec);  // what the socket cannot take now is not waited for here
  }
  std::size_t written = 0;
  if (!ec) {
    // One buffer goes out as a plain send.
    written = second.size() == 0 ? m_socket->write_some(first, ec) : m_socket->write_some(buffers, ec);
  }
  m_bytesWritten.fetch_add(written, std::memory_order_relaxed);
  std::size_t const total = first.size() + second.size();
  if (written == total || (ec && ec != boost::asio::error::would_block && ec != boost::asio::error::try_again)) {
    ready(std::move(then), written == total ? boost::system::error_code() : ec, std::move(keep));
    return;
  }
  // The rest waits until the socket can take it.
  std::size_t const fromFirst = std::min(written, first.size());
  sendRest({first + fromFirst, second + (written - fromFirst)}, std::move(keep), std::move(then));
}

void BufferedStream::sendRest(std::array<boost::asio::const_buffer, 2> rest, std::shared_ptr<void> keep,
                              Handler then) {
  // Bytes that an earlier socket object wrote still count; its completion
  // does not run.
  auto sent = m_generation.bind([this, rest, then = std::move(then)](boost::system::error_code ec, std::size_t n,
                                                                     std::shared_ptr<void> keep) mutable {
    drive([&] {
      if (n != 0) moved();
      std::size_t const fromFirst = std::min(n, rest[0].size());
      rest[0] += fromFirst;
      rest[1] += n - fromFirst;
      if (ec || rest[0].size() + rest[1].size() == 0) {
        then(ec);
      } else {
        sendRest(rest, std::move(keep), std::move(then));
      }
    });
  });
  m_socket->async_write_some(rest, [this, keep = std::move(keep), socket = m_socket, sent = std::move(sent)](
                                       boost::system::error_code ec, std::size_t n) mutable {
    m_bytesWritten.fetch_add(n, std::memory_order_relaxed);
    sent(ec, n, std::move(keep));
  });
}

}  // namespace transport
}  // namespace Ipc
