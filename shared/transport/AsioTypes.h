// Internal: the Asio types that the server and the client share. Not
// installed.
#ifndef QX_SHARED_TRANSPORT_ASIOTYPES_H
#define QX_SHARED_TRANSPORT_ASIOTYPES_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include <time.h>

#include <chrono>
#include <string>

namespace Ipc {
namespace transport {

using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;
// Sockets and timers whose handlers run on their connection's strand.
using Socket = boost::asio::ip::tcp::socket::rebind_executor<Strand>::other;
using Timer = boost::asio::steady_timer::rebind_executor<Strand>::other;

// The steady clock as of its last tick, a few milliseconds behind at most: a
// deadline of seconds that moves with every read and write needs no finer
// reading, and this one reads no hardware clock.
inline Timer::time_point coarseNow() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return Timer::time_point(std::chrono::duration_cast<Timer::duration>(
      std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec)));
}

// "60 s" or "250 ms".
inline std::string durationText(std::chrono::milliseconds d) {
  if (d.count() % 1000 == 0) return std::to_string(d.count() / 1000) + " s";
  return std::to_string(d.count()) + " ms";
}

// Why an operation stood still until its deadline: "no byte moved for 60 s".
inline std::string stalledText(std::chrono::milliseconds limit) {
  return "no byte moved for " + durationText(limit);
}

// What happened to an operation that failed, the peer ("the client", "the
// service") named when it closed the connection.
inline std::string peerErrorText(boost::system::error_code ec, char const* peer) {
  if (ec == boost::asio::error::eof) return std::string(peer) + " closed the connection";
  return ec.message();
}

}  // namespace transport
}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_ASIOTYPES_H
