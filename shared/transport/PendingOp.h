// Internal: the operation of a command that a channel has in progress (one
// at a time). Not installed.
#ifndef QX_SHARED_TRANSPORT_PENDINGOP_H
#define QX_SHARED_TRANSPORT_PENDINGOP_H

#include "shared/CmdI.h"

#include <functional>
#include <memory>
#include <utility>

namespace Ipc {
namespace transport {

struct PendingOp {
  std::shared_ptr<CmdI> cmd;  // kept alive until the operation ends
  std::function<void()> done;

  // Ends the operation: what it held is moved out first, for the
  // completion may start the next one.
  PendingOp take() {
    PendingOp op{std::move(cmd), std::move(done)};
    cmd.reset();
    done = nullptr;
    return op;
  }
};

}  // namespace transport
}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_PENDINGOP_H
