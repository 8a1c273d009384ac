// Internal: the byte layout of the IPC connection. Not installed.
//
// After the TCP connection is made, each side proves that it holds the
// secret token without sending it (Handshake.h):
//   client:  hello: "QXLC", version (1 byte), 3 zero bytes, its nonce (32 bytes)
//   service: a status frame; when it says ok, its nonce and its proof (32 bytes each)
//   client:  its proof (32 bytes), sent only once the service's proof holds
//   service: a status frame
// The version comes first, so a peer of another version is refused by what
// it sends first. Then, one exchange at a time:
//   request:  "QX", version, type code, flags (bit 0: a JSON body follows),
//             3 zero bytes; [body length (4 bytes LE), body]; command data
//   response: "QX", version, status (0 ok, 1 refused), message length
//             (4 bytes LE); a refusal's message; the command's own response
// A refused exchange ends the connection.
#ifndef QX_SHARED_TRANSPORT_WIRE_H
#define QX_SHARED_TRANSPORT_WIRE_H

#include "shared/transport/Handshake.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

namespace Ipc {
namespace wire {

constexpr std::uint8_t kVersion = 2;
constexpr std::size_t kFrameSize = 8;
constexpr std::size_t kNonceSize = transport::handshake::kNonceSize;
constexpr std::size_t kProofSize = transport::handshake::kProofSize;
constexpr std::size_t kHelloSize = 8 + kNonceSize;
// What follows the service's ok status frame in the handshake.
constexpr std::size_t kChallengeSize = kNonceSize + kProofSize;
constexpr std::uint8_t kFlagJsonBody = 1;
constexpr std::uint8_t kStatusOk = 0;
constexpr std::uint8_t kStatusRefused = 1;
constexpr std::size_t kMaxMessage = 64 * 1024;

// A refusal's length goes out in the 4 bytes of the status frame.
static_assert(kMaxMessage <= std::numeric_limits<std::uint32_t>::max(), "a refusal's length fits its field");

inline void putU32(unsigned char* out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(v >> (8 * i));
}
inline std::uint32_t getU32(unsigned char const* in) {
  std::uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= std::uint32_t(in[i]) << (8 * i);
  return v;
}

inline void putRequestFrame(unsigned char* out, std::uint8_t type, std::uint8_t flags) {
  out[0] = 'Q';
  out[1] = 'X';
  out[2] = kVersion;
  out[3] = type;
  out[4] = flags;
  out[5] = out[6] = out[7] = 0;
}

inline void putStatusFrame(unsigned char* out, std::uint8_t status, std::uint32_t messageLen) {
  out[0] = 'Q';
  out[1] = 'X';
  out[2] = kVersion;
  out[3] = status;
  putU32(out + 4, messageLen);
}

inline void putHello(unsigned char* out, transport::handshake::Nonce const& clientNonce) {
  std::memcpy(out, "QXLC", 4);
  out[4] = kVersion;
  out[5] = out[6] = out[7] = 0;
  std::memcpy(out + 8, clientNonce.data(), kNonceSize);
}

// Checks the start of a frame; returns the empty string or what is wrong.
inline std::string checkFrameStart(unsigned char const* frame) {
  if (frame[0] != 'Q' || frame[1] != 'X') return "not an IPC frame";
  if (frame[2] != kVersion) {
    return "unsupported protocol version " + std::to_string(frame[2]) + " (this side speaks " +
           std::to_string(kVersion) + ")";
  }
  return std::string();
}

inline std::string checkHelloStart(unsigned char const* hello) {
  if (std::memcmp(hello, "QXLC", 4) != 0) return "not an IPC client";
  if (hello[4] != kVersion) {
    return "unsupported protocol version " + std::to_string(hello[4]) + " (this side speaks " +
           std::to_string(kVersion) + ")";
  }
  return std::string();
}

}  // namespace wire
}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_WIRE_H
