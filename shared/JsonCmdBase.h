/// \file
/// Ipc::JsonCmdBase: a command whose request and response bodies are JSON
/// objects.
///
/// On the wire a body is its length (4 bytes, little-endian) and its compact
/// JSON text; a body over MAX_BODY bytes is refused. The operations add these
/// steps to the frame of CmdI, in this order:
///   sending side:   sendReq: serializeReq, write the frame and body, sendReqDone
///   receiving side: readReq: read the body, parse, deserializeReq, readReqDone
///   service:        sendResp: serializeResp, write the body, sendRespDone
///   user interface: readResp: read the body, parse, deserializeResp, readRespDone
/// A body that is not a JSON object, or a deserializeReq that throws, ends the
/// exchange through onTransferError with a message that names the command.
#ifndef QX_SHARED_JSONCMDBASE_H
#define QX_SHARED_JSONCMDBASE_H

#include "json/Json.h"
#include "shared/CmdI.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Ipc {

/// A command with JSON bodies (see the file's contract).
class QX_SHARED_API JsonCmdBase : public CmdI {
 public:
  /// Key under which simple responses carry their result.
  static char const* const FIELD_RESP;
  /// The largest JSON body accepted in either direction: 16 MiB.
  static constexpr std::size_t MAX_BODY = std::size_t(16) << 20;

  using CmdI::CmdI;

  ~JsonCmdBase() override;
  void sendReq() override;
  void readReq() override;
  void sendResp() override;
  void readResp() override;

  /// A new empty object unless overridden.
  virtual json::Object serializeReq() const;
  /// The request is complete on the sending side: the channel's reqDone.
  virtual void sendReqDone();
  /// Does nothing unless overridden.
  virtual void deserializeReq(json::Object const& obj);
  /// The request is complete on the receiving side: the channel's reqDone.
  virtual void readReqDone();
  /// A new empty object unless overridden.
  virtual json::Object serializeResp() const;
  /// The response is written: the channel's finishCmd.
  virtual void sendRespDone();
  /// Does nothing unless overridden.
  virtual void deserializeResp(json::Object const& obj);
  /// The response is read: the channel's finishCmd.
  virtual void readRespDone();

 private:
  enum class Part { Request, Response };
  /// Writes the body of obj (after the request frame when part is Request),
  /// then calls done.
  QX_INTERNAL void writeBody(Part part, json::Object const& obj, void (JsonCmdBase::*done)());
  /// Reads one body and hands the parsed object to the part's reader.
  QX_INTERNAL void readBody(Part part);
  QX_INTERNAL void onBodyRead(Part part);
  QX_INTERNAL std::string what(Part part) const;
  /// Why a body of size bytes is refused.
  QX_INTERNAL std::string overLimit(Part part, std::uint64_t size) const;

  /// One JSON transfer at a time.
  std::unique_ptr<char[]> m_buffer;  ///< the body being written or read
  std::size_t m_bufferLen = 0;
  unsigned char m_lenBytes[4] = {};  ///< the length of a body being read
};

}  // namespace Ipc

#endif  // QX_SHARED_JSONCMDBASE_H
