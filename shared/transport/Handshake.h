// Internal: the proofs of the connection handshake. Not installed.
//
// Neither side ever sends the token. Each side sends a fresh random nonce,
// and each proves that it holds the token with HMAC-SHA256, keyed with the
// token, over its role, the protocol version and both nonces:
//   proof(role) = HMAC-SHA256(token, role label, 0, version, client nonce, service nonce)
// The roles' labels differ, so a proof of one side is never a proof of the
// other, and fresh nonces make a recorded proof worthless for the next
// connection. A listener that is not the service learns the client's nonce
// and nothing else: the client checks the service's proof before it sends
// its own.
//
// Plain functions; safe from any thread.
#ifndef QX_SHARED_TRANSPORT_HANDSHAKE_H
#define QX_SHARED_TRANSPORT_HANDSHAKE_H

#include "shared/SecretToken.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Ipc {
namespace transport {
namespace handshake {

constexpr std::size_t kNonceSize = 32;
constexpr std::size_t kProofSize = 32;  // SHA-256
using Nonce = std::array<unsigned char, kNonceSize>;
using Proof = std::array<unsigned char, kProofSize>;

enum class Role { Client, Service };

// A nonce from the kernel's random source (getrandom); throws
// std::runtime_error when none can be had.
Nonce freshNonce();

// The proof that role holds token, for the connection of these nonces.
Proof prove(SecretToken const& token, Role role, std::uint8_t version, Nonce const& client,
            Nonce const& service);

// Whether candidate (kProofSize bytes) is role's proof for these nonces.
// Takes the same time whatever the bytes.
bool verify(SecretToken const& token, Role role, std::uint8_t version, Nonce const& client,
            Nonce const& service, unsigned char const* candidate);

}  // namespace handshake
}  // namespace transport
}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_HANDSHAKE_H
