/// \file
/// Ipc::CmdProcessorI: whoever handles commands.
///
/// On the service side the transport dispatches each command that it has read
/// with CmdI::accept(processor), which reaches the processor's handler for the
/// command's class. On the user-interface side a command may announce
/// something that arrived for it (a result line of a configuration test)
/// through processCmd, on a thread of the transport.
///
/// A processor is shared by every command constructed with it
/// (std::shared_ptr); its calls may come from several transport threads at
/// once, one command at a time each.
#ifndef QX_SHARED_CMDPROCESSORI_H
#define QX_SHARED_CMDPROCESSORI_H

#include "json/Export.h"

#include <memory>

namespace Ipc {

class CmdI;

/// Whoever handles commands (see the file's contract).
class QX_SHARED_API CmdProcessorI {
 public:
  /// Something arrived for cmd (a copy of the command that shares its data).
  /// Does nothing unless overridden.
  virtual void processCmd(std::shared_ptr<CmdI> cmd) { (void)cmd; }
  virtual ~CmdProcessorI() = default;
};

}  // namespace Ipc

#endif  // QX_SHARED_CMDPROCESSORI_H
