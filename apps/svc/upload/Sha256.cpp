#include "apps/svc/upload/Sha256.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace qxsvc {

namespace {

// Files are read in pieces of this size: large enough for few calls, small
// enough not to matter in memory.
constexpr std::size_t kReadChunk = 1 << 20;

std::string toHex(unsigned char const* bytes, unsigned size) {
  static char const digits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(size * 2);
  for (unsigned i = 0; i < size; ++i) {
    hex.push_back(digits[bytes[i] >> 4]);
    hex.push_back(digits[bytes[i] & 0x0f]);
  }
  return hex;
}

}  // namespace

struct Sha256::Ctx {
  Ctx() : md(EVP_MD_CTX_new()) {
    if (!md || EVP_DigestInit_ex(md, EVP_sha256(), nullptr) != 1) {
      EVP_MD_CTX_free(md);
      throw std::runtime_error("SHA-256: the digest cannot be set up");
    }
  }
  ~Ctx() { EVP_MD_CTX_free(md); }
  Ctx(Ctx const&) = delete;
  Ctx& operator=(Ctx const&) = delete;

  EVP_MD_CTX* md;
};

Sha256::Sha256() : m_ctx(new Ctx) {}
Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::update(void const* data, std::size_t size) {
  if (size == 0) return;
  if (EVP_DigestUpdate(m_ctx->md, data, size) != 1) throw std::runtime_error("SHA-256: the digest update failed");
}

std::string Sha256::hex() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  if (EVP_DigestFinal_ex(m_ctx->md, digest, &size) != 1 ||
      EVP_DigestInit_ex(m_ctx->md, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256: the digest cannot be finished");
  }
  return toHex(digest, size);
}

std::string sha256OfFile(int fd, std::string const& what, std::function<void()> const& afterBlock) {
  return sha256OfFileAndParts(fd, 0, what, afterBlock).file;
}

FileDigests sha256OfFileAndParts(int fd, std::uint64_t partSize, std::string const& what,
                                 std::function<void()> const& afterBlock) {
  Sha256 whole;
  Sha256 part;
  FileDigests digests;
  std::vector<unsigned char> buffer(kReadChunk);
  std::uint64_t offset = 0;
  std::uint64_t inPart = 0;  // bytes of the current part read so far
  for (;;) {
    std::size_t want = buffer.size();
    // A read ends where a part ends.
    if (partSize) want = static_cast<std::size_t>(std::min<std::uint64_t>(want, partSize - inPart));
    ssize_t const got = ::pread(fd, buffer.data(), want, static_cast<off_t>(offset));
    if (got < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category(), "cannot read " + what);
    }
    if (got == 0) break;
    std::size_t const n = static_cast<std::size_t>(got);
    whole.update(buffer.data(), n);
    offset += n;
    if (afterBlock) afterBlock();
    if (!partSize) continue;
    part.update(buffer.data(), n);
    inPart += n;
    if (inPart == partSize) {
      digests.parts.push_back(part.hex());
      inPart = 0;
    }
  }
  if (inPart) digests.parts.push_back(part.hex());
  digests.file = whole.hex();
  return digests;
}

std::string sha256OfText(std::string const& text) {
  Sha256 sha;
  sha.update(text.data(), text.size());
  return sha.hex();
}

}  // namespace qxsvc
