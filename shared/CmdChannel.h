/// \file
/// Ipc::CmdChannel: the transport's connection, as one command sees it for
/// the length of one exchange.
///
/// A command starts at most one writeAsync or readAsync at a time, and the
/// next only from the completion of the previous one. A completion runs on a
/// thread of the transport, serialised with every other completion of the same
/// connection, and only when exactly len bytes were moved. When the connection
/// fails (closed by the peer, reset, timed out), the completion is not called:
/// the transport calls the command's onTransferError with a description
/// instead.
///
/// The shared pointer handed with each operation keeps the command alive until
/// the operation ends. The data of writeAsync and the buffer of readAsync must
/// stay valid until then.
///
/// Channels are owned by the transport; commands hold a plain pointer for one
/// exchange and never delete it.
#ifndef QX_SHARED_CMDCHANNEL_H
#define QX_SHARED_CMDCHANNEL_H

#include "json/Export.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace Ipc {

class CmdI;

/// The transport's connection, as a command sees it (see the file's contract).
class QX_SHARED_API CmdChannel {
 public:
  /// The request of cmd is complete on this side: written (user interface) or
  /// read and deserialized (service). Called by the command frame.
  virtual void reqDone(std::shared_ptr<CmdI> const& cmd) = 0;
  /// The exchange of cmd failed; why says how (it begins with "Ipc "). Called
  /// by the frame's onTransferError.
  virtual void failCmd(std::shared_ptr<CmdI> const& cmd, std::string const& why) = 0;
  /// The exchange of cmd is complete.
  virtual void finishCmd(std::shared_ptr<CmdI> const& cmd) = 0;
  /// Writes exactly len bytes of data, then calls done.
  virtual void writeAsync(std::shared_ptr<CmdI> const& cmd, void const* data, std::size_t len,
                          std::function<void()> done) = 0;
  /// Reads exactly len bytes into buf, then calls done.
  virtual void readAsync(std::shared_ptr<CmdI> const& cmd, void* buf, std::size_t len,
                         std::function<void()> done) = 0;

 protected:
  /// Not deleted through this interface.
  ~CmdChannel() = default;
};

}  // namespace Ipc

#endif  // QX_SHARED_CMDCHANNEL_H
