#include "apps/svc/WorkerPool.h"

#include "shared/Log.h"

#include <exception>
#include <utility>

namespace qxsvc {

WorkerPool::WorkerPool(unsigned threads, std::size_t queueLimit)
    : m_threads(threads == 0 ? 1 : threads), m_queueLimit(queueLimit) {
  m_workers.reserve(m_threads);
  for (unsigned i = 0; i < m_threads; ++i) m_workers.emplace_back([this] { work(); });
}

WorkerPool::~WorkerPool() {
  std::deque<std::function<void()>> dropped;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closing = true;
    dropped.swap(m_queue);
    m_changed.notify_all();
  }
  dropped.clear();  // outside the lock: a task's destructor may end a wait
  for (std::thread& t : m_workers) t.join();
}

bool WorkerPool::submit(std::function<void()> task) {
  std::unique_lock<std::mutex> lock(m_mutex);
  std::size_t const idle = m_threads - m_running;
  if (m_closing || m_queue.size() >= m_queueLimit + idle) {
    lock.unlock();
    task = nullptr;  // destroyed outside the lock
    return false;
  }
  m_queue.push_back(std::move(task));
  m_changed.notify_one();
  return true;
}

std::string WorkerPool::busyText() const {
  return "the service is busy with server calls (" + std::to_string(m_threads) + " running, " +
         std::to_string(m_queueLimit) + " waiting); try again later";
}

void WorkerPool::work() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_changed.wait(lock, [this] { return m_closing || !m_queue.empty(); });
      if (m_queue.empty()) return;
      task = std::move(m_queue.front());
      m_queue.pop_front();
      ++m_running;
    }
    try {
      task();
    } catch (std::exception const& e) {
      Log::inst().writeLine("ERR:", std::string("qxlite-svc a server call failed: ") + e.what());
    }
    task = nullptr;
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_running;
  }
}

}  // namespace qxsvc
