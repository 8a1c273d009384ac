#include "shared/IoThreads.h"

#include "shared/transport/Mutex.h"

#include <boost/asio/executor_work_guard.hpp>

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <optional>
#include <thread>
#include <vector>

namespace Ipc {

using transport::CondVar;
using transport::Mutex;
using transport::MutexLock;

namespace {

// The monotonic clock as of its last tick: marking code busy costs no
// hardware clock read, and a take-over after tens of milliseconds needs no
// finer reading.
std::int64_t nowNs() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// One thread of an IoThreads.
struct Slot {
  // When the outermost Busy of the thread began (0: none); written by the
  // thread, read by the standbys.
  std::atomic<std::int64_t> busySince{0};
  std::atomic<bool> running{false};  // in the io_context; changed under State::m_mutex
  int depth = 0;                     // nested Busy; the thread's own
};

thread_local Slot* t_slot = nullptr;
thread_local IoThreads::State* t_state = nullptr;

}  // namespace

class IoThreads::State {
 public:
  State(unsigned threads, std::chrono::milliseconds takeOverAfter)
      : m_takeOverAfter(takeOverAfter),
        m_slotCount(std::max(2u, threads)),
        m_slots(new Slot[m_slotCount]),
        m_work(boost::asio::make_work_guard(m_context)) {
    m_slots[0].running = true;
    m_threads.reserve(m_slotCount);
    m_threads.emplace_back([this] { runFirst(); });
    for (unsigned i = 1; i < m_slotCount; ++i) {
      m_threads.emplace_back([this, i] { standBy(m_slots[i]); });
    }
  }

  void stop() {
    m_work.reset();
    for (std::thread& t : m_threads) {
      if (t.joinable()) t.join();
    }
    m_threads.clear();
  }

  // Called by the outermost Busy of a thread of this object.
  void onBusy() EXCLUDES(m_mutex) {
    m_busyEntries.fetch_add(1);
    if (m_asleep.load() > 0) {
      MutexLock lock(m_mutex);
      m_changed.notifyAll();
    }
  }

  boost::asio::io_context& context() { return m_context; }

 private:
  void runFirst() EXCLUDES(m_mutex) {
    t_slot = &m_slots[0];
    t_state = this;
    m_context.run();
    MutexLock lock(m_mutex);
    m_slots[0].running = false;
    m_ended = true;
    m_changed.notifyAll();
  }

  bool held(Slot const& s, std::int64_t now) const {
    std::int64_t const since = s.busySince.load(std::memory_order_relaxed);
    return s.running.load() && since != 0 &&
           std::chrono::nanoseconds(now - since) >= m_takeOverAfter;
  }

  bool anyBusy() const {
    for (unsigned i = 0; i < m_slotCount; ++i) {
      if (m_slots[i].busySince.load(std::memory_order_relaxed) != 0) return true;
    }
    return false;
  }

  // Whether a thread other than self runs, and every one that runs is held.
  bool allRunningHeld(Slot const& self) const {
    std::int64_t const now = nowNs();
    bool anyRunning = false;
    for (unsigned i = 0; i < m_slotCount; ++i) {
      Slot const& s = m_slots[i];
      if (&s == &self || !s.running.load()) continue;
      if (!held(s, now)) return false;
      anyRunning = true;
    }
    return anyRunning;
  }

  bool anyOtherHeld(Slot const& self) const {
    std::int64_t const now = nowNs();
    for (unsigned i = 0; i < m_slotCount; ++i) {
      if (&m_slots[i] != &self && held(m_slots[i], now)) return true;
    }
    return false;
  }

  // Watches the running threads; joins them while all are held.
  void standBy(Slot& self) EXCLUDES(m_mutex) {
    t_slot = &self;
    t_state = this;
    MutexLock lock(m_mutex);
    std::uint64_t seen = m_busyEntries.load();
    while (!m_ended) {
      std::uint64_t const entries = m_busyEntries.load();
      if (entries == seen && !anyBusy()) {
        // No marked code ran for a whole period: sleep until some does.
        m_asleep.fetch_add(1);
        while (!m_ended && m_busyEntries.load() == entries) m_changed.wait(m_mutex);
        m_asleep.fetch_sub(1);
        seen = m_busyEntries.load();
        continue;
      }
      seen = entries;
      m_changed.waitFor(m_mutex, m_takeOverAfter);
      if (m_ended || !allRunningHeld(self)) continue;
      self.running = true;
      lock.unlock();
      while (!m_context.stopped() && anyOtherHeld(self)) m_context.run_one_for(m_takeOverAfter);
      lock.lock();
      self.running = false;
    }
  }

  std::chrono::nanoseconds const m_takeOverAfter;
  unsigned const m_slotCount;
  std::unique_ptr<Slot[]> const m_slots;
  std::atomic<std::uint64_t> m_busyEntries{0};  // outermost Busy scopes begun so far
  std::atomic<int> m_asleep{0};                 // standbys waiting for a Busy

  // Keep this order: members are made top down and destroyed bottom up. The
  // work guard refers to the context, so it comes after it (and is gone
  // before it); the threads run the context, so they come last and are
  // joined (by stop(), which the owner's destructor calls) before anything
  // else goes.
  boost::asio::io_context m_context;
  // Keeps run() going while no handler is queued; stop() lets it go.
  std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> m_work;
  std::vector<std::thread> m_threads;  // started by the constructor, joined by stop()

  Mutex m_mutex;
  CondVar m_changed;  // waited on with m_mutex: a Busy began, or the first thread ended
  bool m_ended GUARDED_BY(m_mutex) = false;  // the first thread's run() returned: no work is left
};

IoThreads::IoThreads(unsigned threads, std::chrono::milliseconds takeOverAfter)
    : m_state(std::make_unique<State>(threads, takeOverAfter)) {}

IoThreads::~IoThreads() { stop(); }

boost::asio::io_context& IoThreads::context() { return m_state->context(); }

void IoThreads::stop() { m_state->stop(); }

IoThreads::Busy::Busy() {
  Slot* const slot = t_slot;
  if (!slot || slot->depth++ > 0) return;
  slot->busySince.store(nowNs(), std::memory_order_relaxed);
  t_state->onBusy();
}

IoThreads::Busy::~Busy() {
  Slot* const slot = t_slot;
  if (slot && --slot->depth == 0) slot->busySince.store(0, std::memory_order_relaxed);
}

}  // namespace Ipc
