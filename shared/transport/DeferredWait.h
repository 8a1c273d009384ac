// Internal: the wait of a connection for a command's deferred work (see
// shared/DeferredResponse.h). Not installed.
//
// Shared by the handle that the work holds and, weakly, by the session,
// which cancels it when it closes. It keeps the session (and so the server's
// stop()) waiting until end() runs: end() posts the session's continuation
// to its strand, and lets go of the session there.
#ifndef QX_SHARED_TRANSPORT_DEFERREDWAIT_H
#define QX_SHARED_TRANSPORT_DEFERREDWAIT_H

#include "shared/DeferredResponse.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace Ipc {

namespace transport {
class ServerSession;
}  // namespace transport

class DeferredResponse::Wait {
 public:
  // ticket: the session's exchange that waits.
  Wait(std::shared_ptr<transport::ServerSession> session, std::uint64_t ticket)
      : m_session(std::move(session)), m_ticket(ticket) {}
  Wait(Wait const&) = delete;
  Wait& operator=(Wait const&) = delete;

  // Ends the wait, with the result or without; the second call does
  // nothing. From the holder's thread.
  void end(bool completed);
  // From the session's strand, when the connection closes.
  void cancel() noexcept { m_cancelled.store(true); }
  bool cancelled() const noexcept { return m_cancelled.load(); }

 private:
  std::shared_ptr<transport::ServerSession> m_session;  // null once ended
  std::uint64_t const m_ticket;
  std::atomic<bool> m_cancelled{false};
};

}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_DEFERREDWAIT_H
