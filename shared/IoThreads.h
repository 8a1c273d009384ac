/// \file
/// Ipc::IoThreads: the io_context of the transport and the threads that run
/// its completions.
///
/// One thread runs the completions, so a stream of quick exchanges pays no
/// hand-over between threads. The others stand by: once every running thread
/// has been held for takeOverAfter (to within the clock's tick of a few
/// milliseconds) by code marked Busy (the transport marks
/// the code of commands and processors it calls: a visit, a step of a test,
/// a piece of a file written to disk), one more joins, and leaves again once
/// the thread it relieved is back. A slow visit therefore stalls the other
/// clients for takeOverAfter at most, as long as a standby is left. A standby
/// sleeps while nothing is marked busy, and wakes every takeOverAfter while
/// marked code runs.
///
/// Servers and clients take it by reference and must be stopped (or
/// destroyed) before it is: stop() waits until no handler is left.
/// context() may be used from any thread; stop() and the destructor must not
/// be called from one of its own threads.
#ifndef QX_SHARED_IOTHREADS_H
#define QX_SHARED_IOTHREADS_H

#include "json/Export.h"

#include <boost/asio/io_context.hpp>

#include <chrono>
#include <memory>

namespace Ipc {

/// The transport's io_context and its threads (see the file's contract).
class QX_SHARED_API IoThreads {
 public:
  /// How long busy code holds the running threads before a standby joins.
  static constexpr std::chrono::milliseconds kTakeOverAfter{50};

  /// At least two threads (one running, the others standing by).
  explicit IoThreads(unsigned threads = 2,
                     std::chrono::milliseconds takeOverAfter = kTakeOverAfter);
  ~IoThreads();
  IoThreads(IoThreads const&) = delete;
  IoThreads& operator=(IoThreads const&) = delete;

  /// The context that servers and clients run on.
  boost::asio::io_context& context();
  /// Lets the threads end once no work is left, and joins them. Idempotent.
  void stop();

  /// Marks the calling thread, for its lifetime, as running code that may
  /// take long. Nests; a no-op on threads that are not an IoThreads'.
  class Busy {
   public:
    Busy();
    ~Busy();
    Busy(Busy const&) = delete;
    Busy& operator=(Busy const&) = delete;
  };

  class QX_INTERNAL State;  // internal

 private:
  std::unique_ptr<State> m_state;
};

}  // namespace Ipc

#endif  // QX_SHARED_IOTHREADS_H
