/// \file
/// Ipc::CmdI: one command of the user interface to the service, as the
/// transport sees it.
///
/// The same class is used on both sides. The user interface constructs the
/// command and hands it to the transport (CmdClient), which calls sendReq()
/// and, once the service has answered, readResp(). The service's transport
/// (CmdServer) constructs a command of the class that the type code names,
/// calls readReq(), dispatches it with accept(processor), and calls sendResp().
///
/// Every command is owned by a std::shared_ptr: the transport's asynchronous
/// operations hold one, so a command lives until its chain ends. A command that
/// no std::shared_ptr owns throws std::bad_weak_ptr when it starts one.
///
/// The channel pointer is set by the transport for one exchange; the command
/// does not own it. All calls of one exchange run serialised on the
/// transport's threads.
///
/// Virtual operations are declared in a fixed slot order that every derived
/// class keeps: destructor, name, reqTimeoutId, onTransferError, sendReq,
/// readReq, sendResp, readResp, accept, sendNextReqAfterDone.
#ifndef QX_SHARED_CMDI_H
#define QX_SHARED_CMDI_H

#include "shared/CmdChannel.h"
#include "shared/CmdProcessorI.h"

#include <cstdint>
#include <memory>
#include <string>

/// The IPC between the user interface and the service: the command frame,
/// its transport, and the commands.
namespace Ipc {

/// One command, as the transport sees it (see the file's contract).
class QX_SHARED_API CmdI : public std::enable_shared_from_this<CmdI> {
 public:
  /// The code in the request frame that names the command's class.
  using TypeCode = std::uint8_t;

  ///@{
  /// Time-out identifiers (see CmdClient for their values).
  static constexpr int TIMEOUT_QUICK = 2;
  static constexpr int TIMEOUT_LONG = 3;
  static constexpr int TIMEOUT_TRANSFER = 4;
  ///@}

  /// processor: who handles the command (the service's processor; on the
  /// user interface's side, who hears of what arrives for it, or null).
  CmdI(std::shared_ptr<CmdProcessorI> processor, TypeCode type);
  CmdI(CmdI const&) = delete;
  CmdI& operator=(CmdI const&) = delete;

  virtual ~CmdI();
  /// Names the command in messages and log lines.
  virtual char const* name() const = 0;
  /// Which time-out applies while the command waits for or moves bytes.
  virtual int reqTimeoutId() const;
  /// A transfer failed: records why and ends the exchange through the channel.
  virtual void onTransferError(std::string why);
  /// The request frame without a body, then the channel's reqDone.
  virtual void sendReq();
  /// Checks that the frame announced no body, then the channel's reqDone.
  virtual void readReq();
  /// A response without a body: the channel's finishCmd.
  virtual void sendResp();
  /// A response without a body: the channel's finishCmd.
  virtual void readResp();
  /// Dispatches the command to the processor's handler for its class.
  virtual void accept(CmdProcessorI& processor) = 0;
  /// Whether the transport sends another request after this one completes.
  virtual bool sendNextReqAfterDone() const;

  /// The type code given at construction.
  TypeCode typeCode() const { return m_type; }
  /// The processor given at construction (may be null).
  std::shared_ptr<CmdProcessorI> const& processor() const { return m_processor; }
  /// The channel of the exchange in progress; null outside one.
  CmdChannel* channel() const { return m_channel; }
  /// The description of the last failed transfer; empty when none failed.
  std::string const& transferError() const { return m_transferError; }

  /// For the transport: attaches the channel of this exchange and tells
  /// whether the request frame announced a JSON body.
  void setChannel(CmdChannel* channel, bool reqHasBody = false) {
    m_channel = channel;
    m_reqHasBody = reqHasBody;
  }

 protected:
  /// Whether the received request frame announced a JSON body.
  bool reqHasBody() const { return m_reqHasBody; }

 private:
  TypeCode const m_type;
  std::shared_ptr<CmdProcessorI> const m_processor;
  CmdChannel* m_channel = nullptr;     ///< set by the transport, not owned
  bool m_reqHasBody = false;           ///< what the received request frame said
  unsigned char m_frame[8] = {};       ///< the request frame while it is written
  std::string m_transferError;
};

}  // namespace Ipc

#endif  // QX_SHARED_CMDI_H
