// Helpers of the tests: the connection's handshake played by hand over a
// RawSocket, as the client of a real service or as the service of a real
// client. They compute proofs with the transport's own functions, so a test
// that uses them is built with INTERNALS.
#ifndef QX_TESTS_RAWHANDSHAKE_H
#define QX_TESTS_RAWHANDSHAKE_H

#include "shared/SecretToken.h"
#include "shared/transport/Handshake.h"
#include "shared/transport/Wire.h"
#include "tests/RawSocket.h"
#include "tests/WireBytes.h"

#include <cstring>
#include <string>

namespace qxtest {

namespace hs = Ipc::transport::handshake;

inline hs::Nonce nonceAt(std::string const& bytes, std::size_t offset) {
  hs::Nonce nonce{};
  if (bytes.size() >= offset + nonce.size()) std::memcpy(nonce.data(), bytes.data() + offset, nonce.size());
  return nonce;
}

inline std::string proofBytes(hs::Proof const& proof) { return wireBytes(proof.data(), proof.size()); }

// The bytes of a whole handshake, as each side sends them, for these nonces.
inline std::string handshakeFromClient(Ipc::SecretToken const& token, hs::Nonce const& clientNonce,
                                       hs::Nonce const& serviceNonce) {
  return helloStart() + wireBytes(clientNonce.data(), clientNonce.size()) +
         proofBytes(hs::prove(token, hs::Role::Client, Ipc::wire::kVersion, clientNonce, serviceNonce));
}
inline std::string handshakeFromService(Ipc::SecretToken const& token, hs::Nonce const& clientNonce,
                                        hs::Nonce const& serviceNonce) {
  return okFrame() + wireBytes(serviceNonce.data(), serviceNonce.size()) +
         proofBytes(hs::prove(token, hs::Role::Service, Ipc::wire::kVersion, clientNonce, serviceNonce)) +
         okFrame();
}

// What a client learns from the service's answer to its hello.
struct Challenge {
  std::string status;  // the status frame (and a refusal's message)
  hs::Nonce serviceNonce{};
  std::string serviceProof;
};

// Sends a hello with clientNonce and reads the service's answer.
inline Challenge sendHello(RawSocket const& raw, hs::Nonce const& clientNonce) {
  Challenge c;
  raw.send(helloBytes(clientNonce));
  c.status = raw.read(Ipc::wire::kFrameSize);
  if (c.status != okFrame()) return c;
  std::string const rest = raw.read(Ipc::wire::kChallengeSize);
  c.serviceNonce = nonceAt(rest, 0);
  c.serviceProof = rest.substr(std::min(rest.size(), Ipc::wire::kNonceSize));
  return c;
}

// Plays the client's side of the handshake with token: returns the service's
// last status frame (okFrame() when the connection is ready for requests),
// or what was wrong with the service's answer.
inline std::string proveToService(RawSocket const& raw, Ipc::SecretToken const& token) {
  hs::Nonce const clientNonce = hs::freshNonce();
  Challenge const c = sendHello(raw, clientNonce);
  if (c.status != okFrame()) return "the service answered the hello with " + printable(c.status);
  if (c.serviceProof.size() != Ipc::wire::kProofSize ||
      !hs::verify(token, hs::Role::Service, Ipc::wire::kVersion, clientNonce, c.serviceNonce,
                  reinterpret_cast<unsigned char const*>(c.serviceProof.data()))) {
    return "the service's proof does not hold: " + printable(c.serviceProof);
  }
  raw.send(proofBytes(hs::prove(token, hs::Role::Client, Ipc::wire::kVersion, clientNonce, c.serviceNonce)));
  return raw.read(Ipc::wire::kFrameSize);
}

// Reads a client's hello from conn; returns the empty string, or what was
// wrong with it. clientNonce gets the hello's nonce.
inline std::string readHello(RawSocket const& conn, hs::Nonce& clientNonce) {
  std::string const hello = conn.read(Ipc::wire::kHelloSize);
  if (hello.size() != Ipc::wire::kHelloSize || hello.compare(0, 8, helloStart()) != 0) {
    return "not a hello: " + printable(hello);
  }
  clientNonce = nonceAt(hello, 8);
  return std::string();
}

// Plays the service's side of the handshake with token, up to the ok status
// that makes the connection ready: returns the empty string, or what was
// wrong with the client's part.
inline std::string answerHello(RawSocket const& conn, Ipc::SecretToken const& token) {
  hs::Nonce clientNonce;
  std::string const bad = readHello(conn, clientNonce);
  if (!bad.empty()) return bad;
  hs::Nonce const serviceNonce = hs::freshNonce();
  conn.send(okFrame() + wireBytes(serviceNonce.data(), serviceNonce.size()) +
            proofBytes(hs::prove(token, hs::Role::Service, Ipc::wire::kVersion, clientNonce, serviceNonce)));
  std::string const proof = conn.read(Ipc::wire::kProofSize);
  if (proof.size() != Ipc::wire::kProofSize ||
      !hs::verify(token, hs::Role::Client, Ipc::wire::kVersion, clientNonce, serviceNonce,
                  reinterpret_cast<unsigned char const*>(proof.data()))) {
    return "the client's proof does not hold: " + printable(proof);
  }
  conn.send(okFrame());
  return std::string();
}

}  // namespace qxtest

#endif  // QX_TESTS_RAWHANDSHAKE_H
