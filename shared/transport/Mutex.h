// Internal: a mutex, its scoped lock and a condition variable that clang's
// thread-safety analysis understands (the standard library's are not
// annotated). Not installed.
//
// A condition variable waits without a predicate: the caller loops on its
// condition, so that the analysis sees the guarded members read with the
// lock held (it does not look into lambdas passed to a wait).
#ifndef QX_SHARED_TRANSPORT_MUTEX_H
#define QX_SHARED_TRANSPORT_MUTEX_H

#include "shared/transport/ThreadAnnotations.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Ipc {
namespace transport {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(Mutex const&) = delete;
  Mutex& operator=(Mutex const&) = delete;

  void lock() ACQUIRE() { m_mutex.lock(); }
  void unlock() RELEASE() { m_mutex.unlock(); }

 private:
  friend class CondVar;
  std::mutex m_mutex;
};

// Holds mutex from construction to destruction; unlock() and lock() let a
// scope give it back for a while.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
  ~MutexLock() RELEASE() {
    if (m_locked) m_mutex.unlock();
  }
  MutexLock(MutexLock const&) = delete;
  MutexLock& operator=(MutexLock const&) = delete;

  void unlock() RELEASE() {
    m_mutex.unlock();
    m_locked = false;
  }
  void lock() ACQUIRE() {
    m_mutex.lock();
    m_locked = true;
  }

 private:
  Mutex& m_mutex;
  bool m_locked = true;
};

// A condition variable. Each wait names the mutex it gives back, so that
// the analysis checks that the caller holds it; all waits of one condition
// variable use the same mutex.
class CondVar {
 public:
  CondVar() = default;
  CondVar(CondVar const&) = delete;
  CondVar& operator=(CondVar const&) = delete;

  // Gives mutex back while it waits, and has it again on return; may
  // return without a notification.
  void wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
    m_cond.wait(lock);
    lock.release();
  }
  // As wait(), for at most limit; false when the time ran out.
  template <class Rep, class Period>
  bool waitFor(Mutex& mutex, std::chrono::duration<Rep, Period> limit) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
    std::cv_status const status = m_cond.wait_for(lock, limit);
    lock.release();
    return status == std::cv_status::no_timeout;
  }
  void notifyAll() { m_cond.notify_all(); }

 private:
  std::condition_variable m_cond;
};

}  // namespace transport
}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_MUTEX_H
