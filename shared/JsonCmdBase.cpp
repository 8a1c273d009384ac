#include "shared/JsonCmdBase.h"

#include "shared/transport/Wire.h"

#include <cstring>
#include <exception>

namespace Ipc {

char const* const JsonCmdBase::FIELD_RESP = "resp";

JsonCmdBase::~JsonCmdBase() = default;

std::string JsonCmdBase::what(Part part) const {
  return "Ipc " + std::string(name()) + (part == Part::Request ? " request" : " response");
}

std::string JsonCmdBase::overLimit(Part part, std::uint64_t size) const {
  return what(part) + " body of " + std::to_string(size) + " bytes is over the limit of " +
         std::to_string(MAX_BODY) + " bytes";
}

void JsonCmdBase::writeBody(Part part, json::Object const& obj, void (JsonCmdBase::*done)()) {
  std::string const text = json::jsonToString(obj, false);
  if (text.size() > MAX_BODY) {
    onTransferError(overLimit(part, text.size()));
    return;
  }
  std::size_t const frame = part == Part::Request ? wire::kFrameSize : 0;
  m_bufferLen = frame + 4 + text.size();
  m_buffer.reset(new char[m_bufferLen]);
  auto* out = reinterpret_cast<unsigned char*>(m_buffer.get());
  if (frame) wire::putRequestFrame(out, typeCode(), wire::kFlagJsonBody);
  wire::putU32(out + frame, static_cast<std::uint32_t>(text.size()));
  std::memcpy(out + frame + 4, text.data(), text.size());
  channel()->writeAsync(shared_from_this(), m_buffer.get(), m_bufferLen, [this, done] {
    m_buffer.reset();
    (this->*done)();
  });
}

void JsonCmdBase::readBody(Part part) {
  channel()->readAsync(shared_from_this(), m_lenBytes, sizeof m_lenBytes, [this, part] {
    std::uint32_t const len = wire::getU32(m_lenBytes);
    if (len > MAX_BODY) {
      onTransferError(overLimit(part, len));
      return;
    }
    m_bufferLen = len;
    m_buffer.reset(new char[len ? len : 1]);
    channel()->readAsync(shared_from_this(), m_buffer.get(), len,
                         [this, part] { onBodyRead(part); });
  });
}

void JsonCmdBase::onBodyRead(Part part) {
  json::Object obj;
  try {
    obj = json::strToObject(m_buffer.get(), m_bufferLen);
  } catch (json::Exc const& e) {
    m_buffer.reset();
    onTransferError(what(part) + " is not a JSON object: " + e.what());
    return;
  }
  m_buffer.reset();
  if (part == Part::Response) {
    deserializeResp(obj);
    readRespDone();
    return;
  }
  try {
    deserializeReq(obj);
  } catch (std::exception const& e) {
    onTransferError(what(part) + " refused: " + e.what());
    return;
  }
  readReqDone();
}

void JsonCmdBase::sendReq() { writeBody(Part::Request, serializeReq(), &JsonCmdBase::sendReqDone); }

void JsonCmdBase::readReq() {
  if (!reqHasBody()) {
    onTransferError(what(Part::Request) + " has no JSON body");
    return;
  }
  readBody(Part::Request);
}

void JsonCmdBase::sendResp() {
  writeBody(Part::Response, serializeResp(), &JsonCmdBase::sendRespDone);
}

void JsonCmdBase::readResp() { readBody(Part::Response); }

json::Object JsonCmdBase::serializeReq() const { return json::Object(); }

void JsonCmdBase::sendReqDone() { channel()->reqDone(shared_from_this()); }

void JsonCmdBase::deserializeReq(json::Object const&) {}

void JsonCmdBase::readReqDone() { channel()->reqDone(shared_from_this()); }

json::Object JsonCmdBase::serializeResp() const { return json::Object(); }

void JsonCmdBase::sendRespDone() { channel()->finishCmd(shared_from_this()); }

void JsonCmdBase::deserializeResp(json::Object const&) {}

void JsonCmdBase::readRespDone() { channel()->finishCmd(shared_from_this()); }

}  // namespace Ipc
