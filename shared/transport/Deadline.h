// Internal: the deadline of the operation a connection has in progress.
// Not installed.
//
// arm(limit) means "no byte has moved for limit from now". Moving it costs
// no system call: a wait never reaches further than the stride (the shortest
// limit in use), so the wait in progress ends no later than any new
// deadline; one that fires early waits again. Deadlines are read from the
// coarse clock, and hold to within its tick. When one passes, the owner's
// expired() runs on the strand.
//
// Used on the strand only. A wait holds its owner, as made by the keep()
// given to the arm() that starts it, until it ends.
#ifndef QX_SHARED_TRANSPORT_DEADLINE_H
#define QX_SHARED_TRANSPORT_DEADLINE_H

#include "shared/transport/AsioTypes.h"

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

namespace Ipc {
namespace transport {

class Deadline {
 public:
  Deadline(Strand const& strand, std::chrono::milliseconds stride, std::function<void()> expired);
  Deadline(Deadline const&) = delete;
  Deadline& operator=(Deadline const&) = delete;

  // keep() makes the owner's shared pointer; called only when a wait starts.
  template <class Keep>
  void arm(std::chrono::milliseconds limit, Keep&& keep) {
    m_limit = limit;
    m_deadline = coarseNow() + limit;
    if (m_waiting && m_timer.expiry() <= m_deadline) return;
    wait(keep());
  }
  // Bytes moved: an armed deadline starts again from now with its limit; a
  // cleared or cancelled one stays so.
  template <class Keep>
  void touch(Keep&& keep) {
    if (m_deadline == Timer::time_point::max()) return;
    arm(m_limit, std::forward<Keep>(keep));
  }
  // No deadline until the next arm(). The wait in progress stays: the next
  // deadline most likely needs one no later, and its end costs no more than
  // a cancellation would.
  void clear() { m_deadline = Timer::time_point::max(); }
  // No deadline, and no wait.
  void cancel();
  // The limit armed last.
  std::chrono::milliseconds limit() const { return m_limit; }

 private:
  void wait(std::shared_ptr<void> keep);

  std::chrono::milliseconds const m_stride;
  std::function<void()> const m_expired;

  Timer m_timer;
  std::chrono::milliseconds m_limit{0};
  Timer::time_point m_deadline = Timer::time_point::max();
  bool m_waiting = false;  // a wait of m_timer is in progress
};

}  // namespace transport
}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_DEADLINE_H
