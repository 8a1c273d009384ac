// Ipc::IoThreads: the io_context of the transport and the threads that run
// its completions.
//
// Servers and clients take it by reference and must be stopped (or
// destroyed) before it is: stop() waits until no handler is left.
// context() may be used from any thread; stop() and the destructor must not
// be called from one of its own threads.
#ifndef QX_SHARED_IOTHREADS_H
#define QX_SHARED_IOTHREADS_H

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <optional>
#include <thread>
#include <vector>

namespace Ipc {

class IoThreads {
 public:
  // At least two threads, so that one slow handler does not stall others.
  explicit IoThreads(unsigned threads = 2);
  ~IoThreads();
  IoThreads(IoThreads const&) = delete;
  IoThreads& operator=(IoThreads const&) = delete;

  boost::asio::io_context& context() { return m_context; }
  // Lets the threads end once no work is left, and joins them. Idempotent.
  void stop();

 private:
  boost::asio::io_context m_context;
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> m_work;
  std::vector<std::thread> m_threads;
};

}  // namespace Ipc

#endif  // QX_SHARED_IOTHREADS_H
