// Helpers of the tests: the bytes that the IPC connection carries, built
// with the transport's own layout (shared/transport/Wire.h), and a printable
// form of bytes for failure messages.
#ifndef QX_TESTS_WIREBYTES_H
#define QX_TESTS_WIREBYTES_H

#include "shared/transport/Wire.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace qxtest {

inline std::string wireBytes(unsigned char const* data, std::size_t len) {
  return std::string(reinterpret_cast<char const*>(data), len);
}

// The fixed start of the client's hello: what precedes its nonce.
inline std::string helloStart() { return std::string("QXLC\x02\x00\x00\x00", 8); }

// The client's hello with nonce.
inline std::string helloBytes(Ipc::transport::handshake::Nonce const& nonce) {
  unsigned char out[Ipc::wire::kHelloSize];
  Ipc::wire::putHello(out, nonce);
  return wireBytes(out, sizeof out);
}

// A request frame.
inline std::string requestFrame(std::uint8_t type, std::uint8_t flags) {
  unsigned char out[Ipc::wire::kFrameSize];
  Ipc::wire::putRequestFrame(out, type, flags);
  return wireBytes(out, sizeof out);
}

// The status frame that says ok.
inline std::string okFrame() {
  unsigned char out[Ipc::wire::kFrameSize];
  Ipc::wire::putStatusFrame(out, Ipc::wire::kStatusOk, 0);
  return wireBytes(out, sizeof out);
}

// A refusal: its status frame, then its message.
inline std::string refusalBytes(std::string const& message) {
  unsigned char out[Ipc::wire::kFrameSize];
  Ipc::wire::putStatusFrame(out, Ipc::wire::kStatusRefused, static_cast<std::uint32_t>(message.size()));
  return wireBytes(out, sizeof out) + message;
}

// A JSON body as it travels: its length (4 bytes, little-endian), then its
// text.
inline std::string jsonBody(std::string const& json) {
  unsigned char len[4];
  Ipc::wire::putU32(len, static_cast<std::uint32_t>(json.size()));
  return wireBytes(len, sizeof len) + json;
}

// Bytes with everything but printable ASCII written as \xNN.
inline std::string printable(std::string const& bytes) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      out += "\\x";
      out += digits[c >> 4];
      out += digits[c & 15];
    }
  }
  return out;
}

}  // namespace qxtest

#endif  // QX_TESTS_WIREBYTES_H
