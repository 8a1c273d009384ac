#include "shared/transport/DeferredWait.h"

#include "shared/CmdI.h"
#include "shared/transport/ServerSession.h"

#include <boost/asio/post.hpp>

#include <stdexcept>
#include <string>
#include <utility>

namespace Ipc {

using transport::ServerSession;

void DeferredResponse::Wait::end(bool completed) {
  if (!m_session) return;
  ServerSession& session = *m_session;
  // The posted handler holds the session: it ends there, on its strand.
  boost::asio::post(session.strand(), [s = std::move(m_session), ticket = m_ticket, completed] {
    s->endWait(ticket, completed);
  });
}

DeferredResponse::DeferredResponse(CmdI& cmd, std::function<void()> resume) {
  auto* const session = dynamic_cast<ServerSession*>(cmd.channel());
  if (!session) {
    throw std::logic_error("Ipc " + std::string(cmd.name()) +
                           " cannot defer its response: it is in no exchange of a service's connection");
  }
  m_wait = session->startWait(cmd.shared_from_this(), std::move(resume));
}

DeferredResponse::~DeferredResponse() {
  if (m_wait) m_wait->end(false);
}

DeferredResponse::DeferredResponse(DeferredResponse&& other) noexcept : m_wait(std::move(other.m_wait)) {}

DeferredResponse& DeferredResponse::operator=(DeferredResponse&& other) noexcept {
  if (this != &other) {
    if (m_wait) m_wait->end(false);
    m_wait = std::move(other.m_wait);
  }
  return *this;
}

void DeferredResponse::complete() {
  if (!m_wait) return;
  m_wait->end(true);
  m_wait.reset();
}

bool DeferredResponse::cancelled() const { return !m_wait || m_wait->cancelled(); }

}  // namespace Ipc
