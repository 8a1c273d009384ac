// Internal: the exchange that a connection has in progress (one command, its
// request and its response), as the server's session and the client's
// connection both keep it. Not installed.
//
// Two kinds of late arrivals are turned away here:
//  - calls of the CmdChannel interface from a command whose exchange has
//    ended: holds(cmd) is false for them;
//  - completions of operations started for an exchange that has ended:
//    handlers made by bind() (or that check their ticket()) do not run once
//    end() (or the next begin()) came.
// Used on the connection's strand only.
#ifndef QX_SHARED_TRANSPORT_EXCHANGE_H
#define QX_SHARED_TRANSPORT_EXCHANGE_H

#include "shared/CmdI.h"
#include "shared/IoThreads.h"
#include "shared/transport/Generation.h"
#include "shared/transport/PendingOp.h"

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace Ipc {
namespace transport {

class Exchange {
 public:
  Exchange() = default;
  Exchange(Exchange const&) = delete;
  Exchange& operator=(Exchange const&) = delete;

  // The command of the exchange in progress; null when none is.
  std::shared_ptr<CmdI> const& cmd() const { return m_cmd; }
  bool active() const { return m_cmd != nullptr; }
  // Whether cmd is the command of the exchange in progress.
  bool holds(std::shared_ptr<CmdI> const& cmd) const { return cmd && cmd == m_cmd; }

  void begin(std::shared_ptr<CmdI> cmd) {
    m_generation.advance();
    m_cmd = std::move(cmd);
  }
  // Ends the exchange: its handlers are ignored from now on, and the
  // operation it left behind is dropped. Returns its command.
  std::shared_ptr<CmdI> end() {
    m_generation.advance();
    m_op = PendingOp();
    return std::move(m_cmd);
  }

  // f, to run only if this exchange is still the one in progress then.
  template <class F>
  Generation::Bound<F> bind(F f) const {
    return m_generation.bind(std::move(f));
  }
  // For the handler of a command's operation, which must stay within two
  // words: what it keeps, and the test it makes (see Generation).
  std::uint64_t ticket() const { return m_generation.current(); }
  bool isCurrent(std::uint64_t ticket) const { return m_generation.isCurrent(ticket); }

  // The operation of the command that runs now (one at a time).
  void startOp(std::shared_ptr<CmdI> const& cmd, std::function<void()> done) {
    m_op = PendingOp{cmd, std::move(done)};
  }
  PendingOp takeOp() { return m_op.take(); }
  // Whether an operation is in progress (its completion has not run yet).
  bool opPending() const { return m_op.cmd != nullptr; }

  // Runs f, code of the command, marked busy; an exception becomes
  // fail("Ipc <name> failed: <what>").
  template <class F, class Fail>
  static void guarded(CmdI const& cmd, F&& f, Fail&& fail) {
    IoThreads::Busy busy;
    try {
      f();
    } catch (std::exception const& e) {
      fail("Ipc " + std::string(cmd.name()) + " failed: " + e.what());
    }
  }

  // Tells the command that its transfer failed; when its onTransferError
  // did not end the exchange (an override may not), ends it through
  // channel.failCmd.
  void transferFailed(std::shared_ptr<CmdI> const& cmd, std::string const& why, CmdChannel& channel) {
    {
      IoThreads::Busy busy;
      cmd->onTransferError(why);
    }
    if (holds(cmd)) channel.failCmd(cmd, why);
  }

 private:
  std::shared_ptr<CmdI> m_cmd;
  PendingOp m_op;  // the operation of m_cmd in progress
  Generation m_generation;
};

}  // namespace transport
}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_EXCHANGE_H
