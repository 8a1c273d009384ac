#include "shared/CmdI.h"

#include "shared/transport/Wire.h"

namespace Ipc {

CmdI::CmdI(std::shared_ptr<CmdProcessorI> processor, TypeCode type)
    : m_type(type), m_processor(std::move(processor)) {}

CmdI::~CmdI() = default;

int CmdI::reqTimeoutId() const { return TIMEOUT_QUICK; }

void CmdI::onTransferError(std::string why) {
  m_transferError = std::move(why);
  if (m_channel) m_channel->failCmd(shared_from_this(), m_transferError);
}

void CmdI::sendReq() {
  static_assert(sizeof m_frame == wire::kFrameSize, "m_frame holds one request frame");
  wire::putRequestFrame(m_frame, m_type, 0);
  m_channel->writeAsync(shared_from_this(), m_frame, sizeof m_frame,
                        [this] { m_channel->reqDone(shared_from_this()); });
}

void CmdI::readReq() {
  if (m_reqHasBody) {
    onTransferError("Ipc " + std::string(name()) + " request carries a body it does not take");
    return;
  }
  m_channel->reqDone(shared_from_this());
}

void CmdI::sendResp() { m_channel->finishCmd(shared_from_this()); }

void CmdI::readResp() { m_channel->finishCmd(shared_from_this()); }

bool CmdI::sendNextReqAfterDone() const { return false; }

}  // namespace Ipc
