/// \file
/// Ipc::DeferredResponse: lets a command's work that waits on something slow
/// (a call to another server) run on a thread of the service's own, so that
/// no thread of the transport waits with it.
///
/// Made on the transport's thread by the code that handles a command on the
/// service's side: the processor's handler (a visit), or the command's own
/// code while it sends its response, between two of its writes (none of its
/// reads or writes pending). From then on the connection waits for the work:
/// no thread is held, and the transfer time-out does not run (the work must
/// bound itself). complete() ends the wait and may come from any thread; the
/// connection then goes on, on its own strand:
///  - deferred by the handler: the response is sent (the command's
///    sendResp), exactly as if the handler had only now returned, or resume
///    runs instead when one was given;
///  - deferred while the response goes out: resume runs, and continues it.
/// The work's result goes into the command's fields before complete(), or
/// in resume, on the strand: a JSON document, whose reference counts are not
/// atomic, must be put into the command there.
///
/// A connection that closes meanwhile (the client left, the service stops)
/// drops the result: complete() is then harmless, and cancelled() turns true
/// so that the work may end early. The server's stop() waits until every
/// DeferredResponse of its connections has been completed or destroyed:
/// work that hangs must watch cancelled(). One that is destroyed without
/// complete() fails the exchange with "Ipc <name> failed in the service: its
/// work ended without a result", refused to the client while no status of the
/// response has gone out, else by closing the connection.
///
/// A holder of the handle is used by one thread at a time; cancelled() may be
/// called from any thread.
#ifndef QX_SHARED_DEFERREDRESPONSE_H
#define QX_SHARED_DEFERREDRESPONSE_H

#include "json/Export.h"

#include <functional>
#include <memory>

namespace Ipc {

class CmdI;

/// The handle of one command's deferred response (see the file's contract).
class QX_SHARED_API DeferredResponse {
 public:
  /// Throws std::logic_error when cmd is not in an exchange of a CmdServer's
  /// connection at a point where it may wait (see above), or when it is
  /// deferred while its response goes out and resume is empty.
  explicit DeferredResponse(CmdI& cmd, std::function<void()> resume = {});
  ~DeferredResponse();
  /// Takes over the wait of other, which no longer holds one.
  DeferredResponse(DeferredResponse&& other) noexcept;
  /// Takes over the wait of other; a wait this handle held is let go of as
  /// by the destructor.
  DeferredResponse& operator=(DeferredResponse&& other) noexcept;
  DeferredResponse(DeferredResponse const&) = delete;
  DeferredResponse& operator=(DeferredResponse const&) = delete;

  /// The result is in the command: the connection goes on. At most once; a
  /// moved-from handle ignores it.
  void complete();
  /// Whether the connection no longer waits for the result.
  bool cancelled() const;

  class QX_INTERNAL Wait;  // internal

 private:
  std::shared_ptr<Wait> m_wait;
};

}  // namespace Ipc

#endif  // QX_SHARED_DEFERREDRESPONSE_H
