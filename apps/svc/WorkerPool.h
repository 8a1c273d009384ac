// A few threads of the service's own for work that waits on the network (the
// server calls of ServerRequest, the server checks of TestCfg), so that no
// thread of the IPC transport waits with it.
//
// At most `threads` tasks run at once and at most `queueLimit` wait for a
// thread; submit() refuses more at once instead of queueing without end: its
// caller runs on a transport thread and answers the client that the service
// is busy, which is better than a wait that ends in the client's time-out
// and better than memory that grows with the callers.
//
// submit() may be called from any thread. The destructor drops the tasks
// that wait (they are destroyed without running) and joins the threads,
// which finish the tasks they run: tasks must bound their own time. Call it
// from a thread that is not one of the pool's.
#ifndef QX_APPS_SVC_WORKERPOOL_H
#define QX_APPS_SVC_WORKERPOOL_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qxsvc {

class WorkerPool {
 public:
  static constexpr unsigned kThreads = 4;
  static constexpr std::size_t kQueueLimit = 16;

  WorkerPool(unsigned threads = kThreads, std::size_t queueLimit = kQueueLimit);
  ~WorkerPool();
  WorkerPool(WorkerPool const&) = delete;
  WorkerPool& operator=(WorkerPool const&) = delete;

  // Queues task; false (and task destroyed unrun) when every thread is busy
  // and queueLimit tasks wait already, or the pool is closing.
  bool submit(std::function<void()> task);
  // Why submit() refused: "the service is busy with server calls (N
  // running, M waiting); try again later".
  std::string busyText() const;

 private:
  void work();

  unsigned const m_threads;
  std::size_t const m_queueLimit;

  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<std::function<void()>> m_queue;  // guarded by m_mutex: tasks not yet taken
  unsigned m_running = 0;                      // guarded by m_mutex: tasks taken by a thread
  bool m_closing = false;                      // guarded by m_mutex
  std::vector<std::thread> m_workers;
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_WORKERPOOL_H
