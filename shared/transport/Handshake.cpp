#include "shared/transport/Handshake.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Ipc {
namespace transport {
namespace handshake {

namespace {

static_assert(kProofSize == 32, "a proof is one SHA-256 digest");
static_assert(SecretToken::SIZE == 32, "the HMAC key is the whole token");

char const* label(Role role) { return role == Role::Client ? "client" : "service"; }

}  // namespace

Nonce freshNonce() {
  Nonce nonce;
  std::size_t got = 0;
  while (got < nonce.size()) {
    ssize_t const n = ::getrandom(nonce.data() + got, nonce.size() - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      throw std::runtime_error(std::string("Ipc no random nonce for the handshake: ") +
                               std::strerror(errno));
    }
    got += static_cast<std::size_t>(n);
  }
  return nonce;
}

Proof prove(SecretToken const& token, Role role, std::uint8_t version, Nonce const& client,
            Nonce const& service) {
  // label, a zero byte, the version, then both nonces: fixed sizes after the
  // separator, so no two inputs share one message.
  char const* const name = label(role);
  std::size_t const nameLen = std::strlen(name);
  unsigned char message[16 + 2 + 2 * kNonceSize];
  std::size_t len = 0;
  std::memcpy(message, name, nameLen);
  len += nameLen;
  message[len++] = 0;
  message[len++] = version;
  std::memcpy(message + len, client.data(), client.size());
  len += client.size();
  std::memcpy(message + len, service.data(), service.size());
  len += service.size();

  Proof proof;
  unsigned int proofLen = 0;
  if (!HMAC(EVP_sha256(), token.data(), static_cast<int>(SecretToken::SIZE), message, len,
            proof.data(), &proofLen) ||
      proofLen != proof.size()) {
    throw std::runtime_error("Ipc the handshake's proof could not be computed");
  }
  return proof;
}

bool verify(SecretToken const& token, Role role, std::uint8_t version, Nonce const& client,
            Nonce const& service, unsigned char const* candidate) {
  Proof const expected = prove(token, role, version, client, service);
  return CRYPTO_memcmp(expected.data(), candidate, expected.size()) == 0;
}

}  // namespace handshake
}  // namespace transport
}  // namespace Ipc
