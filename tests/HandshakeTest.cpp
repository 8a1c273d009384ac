#include "shared/transport/Handshake.h"

#include "tests/TestUtil.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace hs = Ipc::transport::handshake;

namespace {

// A token of known bytes (0, 1, ..., 31), read from a file as the programs do.
Ipc::SecretToken countingToken(qxtest::TempDir const& dir) {
  std::string hex;
  char digits[3];
  for (int i = 0; i < 32; ++i) {
    std::snprintf(digits, sizeof digits, "%02x", i);
    hex += digits;
  }
  boost::filesystem::path const file = dir / "ipc.token";
  qxtest::writeFile(file, hex + "\n");
  ::chmod(file.c_str(), 0600);
  return Ipc::SecretToken::load(file);
}

hs::Nonce countingNonce(unsigned char first) {
  hs::Nonce nonce;
  for (std::size_t i = 0; i < nonce.size(); ++i) nonce[i] = static_cast<unsigned char>(first + i);
  return nonce;
}

std::string hex(hs::Proof const& proof) {
  std::string out;
  char digits[3];
  for (unsigned char b : proof) {
    std::snprintf(digits, sizeof digits, "%02x", b);
    out += digits;
  }
  return out;
}

class HandshakeTest : public ::testing::Test {
 protected:
  qxtest::TempDir dir;
  Ipc::SecretToken token = countingToken(dir);
  hs::Nonce client = countingNonce(0x20);
  hs::Nonce service = countingNonce(0x40);
};

}  // namespace

// HMAC-SHA256(token, label 0x00 version client-nonce service-nonce), computed
// independently of this code.
TEST_F(HandshakeTest, ProofsAreTheHmacOfRoleVersionAndBothNonces) {
  EXPECT_EQ("9343ae7928b1db25a9da72b8f611887871d1dd1861c77796be72f0b897272dec",
            hex(hs::prove(token, hs::Role::Client, 2, client, service)));
  EXPECT_EQ("e2bde67f1109bc9721a5879334d65a566be48ef3d41234a486b38ed7731537be",
            hex(hs::prove(token, hs::Role::Service, 2, client, service)));
}

TEST_F(HandshakeTest, VerifyAcceptsTheRolesOwnProof) {
  for (hs::Role role : {hs::Role::Client, hs::Role::Service}) {
    hs::Proof const proof = hs::prove(token, role, 2, client, service);
    EXPECT_TRUE(hs::verify(token, role, 2, client, service, proof.data()));
  }
}

TEST_F(HandshakeTest, TheServicesProofIsNotTheClients) {
  hs::Proof const serviceProof = hs::prove(token, hs::Role::Service, 2, client, service);
  EXPECT_FALSE(hs::verify(token, hs::Role::Client, 2, client, service, serviceProof.data()));
}

TEST_F(HandshakeTest, VerifyRefusesEveryFlippedBit) {
  hs::Proof const proof = hs::prove(token, hs::Role::Client, 2, client, service);
  for (std::size_t byte = 0; byte < proof.size(); ++byte) {
    for (int bit = 0; bit < 8; ++bit) {
      hs::Proof forged = proof;
      forged[byte] ^= static_cast<unsigned char>(1u << bit);
      EXPECT_FALSE(hs::verify(token, hs::Role::Client, 2, client, service, forged.data()))
          << "byte " << byte << " bit " << bit;
    }
  }
}

TEST_F(HandshakeTest, AProofHoldsForItsOwnNoncesVersionAndTokenOnly) {
  hs::Proof const proof = hs::prove(token, hs::Role::Client, 2, client, service);
  EXPECT_FALSE(hs::verify(token, hs::Role::Client, 2, countingNonce(0x21), service, proof.data()));
  EXPECT_FALSE(hs::verify(token, hs::Role::Client, 2, client, countingNonce(0x41), proof.data()));
  EXPECT_FALSE(hs::verify(token, hs::Role::Client, 3, client, service, proof.data()));
  EXPECT_FALSE(
      hs::verify(Ipc::SecretToken::generate(), hs::Role::Client, 2, client, service, proof.data()));
}

TEST(Handshake, NoncesAreFresh) {
  EXPECT_NE(hs::freshNonce(), hs::freshNonce());
}
