// Internal: the socket of one IPC connection, as a server's session and a
// client use it. Not installed.
//
//  - Reads go through a read-ahead buffer: one receive takes all that has
//    arrived (a status frame, a length and a JSON body; many records of a
//    test), and the reads after it are served from memory. What is left of a
//    read once the buffer is used up goes straight into the destination when
//    it is at least half the buffer (a piece of a dropped file).
//  - A write is tried at once; only what the socket does not take waits for
//    the reactor.
//  - A completion whose bytes moved at once is not run by the call that
//    started it: it runs when the handler that drives the stream (drive())
//    returns, after the completions before it. A command that streams many
//    small records neither nests one call per record nor pays a round
//    through the io_context for each.
//  - Every receive and send of the socket that moves at least one byte
//    tells the owner (onBytesMoved()), before the read or write it serves
//    completes: a peer that moves a large piece slowly is still live, and
//    its owner's deadline moves with it.
//
// One read and one write may be outstanding at a time. Used on the strand
// only. Every handler holds the `keep` given with its operation (the owner
// of the stream) until it has run.
#ifndef QX_SHARED_TRANSPORT_BUFFEREDSTREAM_H
#define QX_SHARED_TRANSPORT_BUFFEREDSTREAM_H

#include "shared/transport/AsioTypes.h"
#include "shared/transport/Generation.h"

#include <boost/asio/buffer.hpp>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Ipc {
namespace transport {

class BufferedStream {
 public:
  using Handler = std::function<void(boost::system::error_code)>;

  // A stream whose socket is not connected yet (see renew()).
  BufferedStream(Strand const& strand, std::size_t readAhead);
  // A stream of an accepted socket.
  BufferedStream(Socket socket, std::size_t readAhead);
  BufferedStream(BufferedStream const&) = delete;
  BufferedStream& operator=(BufferedStream const&) = delete;

  Socket& socket() { return *m_socket; }
  // The socket object of now, for an owner whose handlers must keep it.
  std::shared_ptr<Socket> const& socketHandle() const { return m_socket; }

  // A new socket object, for a new connection: the bytes buffered are
  // dropped, and the handlers of the operations started before are never
  // called.
  void renew();
  // Closes the socket: the operations in progress complete with an error.
  void close();
  // Called on the strand whenever the socket took or gave bytes for the
  // read or write in progress (not for bytes served from the buffer, nor
  // for those of the write's first try, which follows the owner's own
  // arming of its deadline). Set once, before the first operation.
  void onBytesMoved(std::function<void()> moved) { m_bytesMoved = std::move(moved); }

  // Reads exactly len bytes into dst, then calls then.
  void read(void* dst, std::size_t len, std::shared_ptr<void> keep, Handler then);
  // Writes first, then second (which may be empty), whole; then calls then.
  void write(boost::asio::const_buffer first, boost::asio::const_buffer second,
             std::shared_ptr<void> keep, Handler then);

  // Runs f, then every completion that became ready meanwhile. Nests: only
  // the outermost call runs them.
  template <class F>
  void drive(F&& f) {
    if (m_driving) {
      f();
      return;
    }
    Driving driving(*this);
    f();
    runReady();
  }

  // Bytes written so far (any thread).
  std::uint64_t bytesWritten() const { return m_bytesWritten.load(std::memory_order_relaxed); }

 private:
  struct Ready {
    Handler then;
    boost::system::error_code ec;
    std::shared_ptr<void> keep;
  };
  struct Driving {
    explicit Driving(BufferedStream& s) : stream(s) { stream.m_driving = true; }
    ~Driving() { stream.m_driving = false; }
    BufferedStream& stream;
  };

  void ready(Handler then, boost::system::error_code ec, std::shared_ptr<void> keep);
  void runReady();
  // Moves buffered bytes into the read in progress.
  void take();
  void receive();
  void completeRead(boost::system::error_code ec);
  // Sends what is left of a write once the socket can take it, one send at
  // a time, so that each partial send counts as progress.
  void sendRest(std::array<boost::asio::const_buffer, 2> rest, std::shared_ptr<void> keep, Handler then);
  void moved() {
    if (m_bytesMoved) m_bytesMoved();
  }

  Strand const m_strand;
  std::size_t const m_readAhead;
  std::atomic<std::uint64_t> m_bytesWritten{0};

  // Used on the strand only.
  std::function<void()> m_bytesMoved;
  std::shared_ptr<Socket> m_socket;
  Generation m_generation;         // of the socket object: handlers of earlier ones are ignored
  std::unique_ptr<char[]> m_in;    // the read-ahead buffer, made at the first receive
  std::size_t m_inBegin = 0;       // the bytes buffered are [m_inBegin, m_inEnd)
  std::size_t m_inEnd = 0;
  bool m_receiving = false;        // a receive of the socket is in progress
  // The read in progress (then is empty when there is none).
  char* m_readDst = nullptr;
  std::size_t m_readLen = 0;
  std::size_t m_readGot = 0;
  Handler m_readThen;
  std::shared_ptr<void> m_readKeep;
  char m_joined[256];  // the two small pieces of the write in progress, joined
  std::vector<Ready> m_ready;  // completions to run when the driving handler returns
  std::size_t m_readyHead = 0; // the next of m_ready to run
  bool m_driving = false;
};

}  // namespace transport
}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_BUFFEREDSTREAM_H
