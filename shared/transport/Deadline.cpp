#include "shared/transport/Deadline.h"

#include <algorithm>

namespace Ipc {
namespace transport {

Deadline::Deadline(Strand const& strand, std::chrono::milliseconds stride,
                   std::function<void()> expired)
    : m_stride(stride), m_expired(std::move(expired)), m_timer(strand) {}

void Deadline::cancel() {
  m_deadline = Timer::time_point::max();
  m_timer.cancel();
  m_waiting = false;
}

void Deadline::wait(std::shared_ptr<void> keep) {
  m_waiting = true;
  m_timer.expires_at(std::min(m_deadline, coarseNow() + m_stride));
  m_timer.async_wait([this, keep](boost::system::error_code ec) {
    if (ec == boost::asio::error::operation_aborted) return;  // replaced or cancelled
    m_waiting = false;
    if (m_deadline == Timer::time_point::max()) return;  // cleared
    if (m_deadline > Timer::clock_type::now()) {         // moved since
      wait(keep);
      return;
    }
    m_expired();
  });
}

}  // namespace transport
}  // namespace Ipc
