#include "apps/svc/upload/Sha256.h"

#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace qxsvc {

namespace {

// Files are read in pieces of this size: large enough for few calls, small
// enough not to matter in memory.
constexpr std::size_t kReadChunk = 1 << 20;

// The size of the reads of the file open as fd: kReadChunk, or less for a
// smaller file (at least one page; a file that grows is read in more pieces).
std::size_t readChunkFor(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || st.st_size >= static_cast<off_t>(kReadChunk)) return kReadChunk;
  return std::max<std::size_t>(static_cast<std::size_t>(std::max<off_t>(st.st_size, 0)), 4096);
}

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

namespace {

// Hashes the pieces of partSize bytes of a stream on a thread of its own,
// from buffers that the caller lends one at a time: with the whole file's
// hash taken meanwhile on the caller's thread, both digests describe the
// very same bytes, and on two cores they cost the time of one.
class PartHasher {
 public:
  explicit PartHasher(std::uint64_t partSize) : m_partSize(partSize), m_thread([this] { run(); }) {}
  ~PartHasher() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
  }
  PartHasher(PartHasher const&) = delete;
  PartHasher& operator=(PartHasher const&) = delete;

  // Starts on size bytes at data, which stay untouched until wait() returns.
  void start(unsigned char const* data, std::size_t size) {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_data = data;
      m_size = size;
    }
    m_wake.notify_all();
  }

  // Until the bytes last started are hashed; rethrows what hashing threw.
  void wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_wake.wait(lock, [this] { return m_data == nullptr; });
    if (m_error) std::rethrow_exception(std::exchange(m_error, nullptr));
  }

  // The digests of the parts, the last one shorter; after wait().
  std::vector<std::string> finish() {
    if (m_inPart) m_parts.push_back(m_part.hex());
    m_inPart = 0;
    return std::move(m_parts);
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
      m_wake.wait(lock, [this] { return m_stop || m_data != nullptr; });
      if (m_stop) return;
      unsigned char const* const data = m_data;
      std::size_t const size = m_size;
      lock.unlock();
      std::exception_ptr error;
      try {
        add(data, size);
      } catch (...) {
        error = std::current_exception();
      }
      lock.lock();
      m_error = error;
      m_data = nullptr;
      m_wake.notify_all();
    }
  }

  // Reads never cross the end of a part (the caller cuts them there).
  void add(unsigned char const* data, std::size_t size) {
    m_part.update(data, size);
    m_inPart += size;
    if (m_inPart == m_partSize) {
      m_parts.push_back(m_part.hex());
      m_inPart = 0;
    }
  }

  std::uint64_t const m_partSize;
  // Touched by the thread between start() and the end of wait(), by the
  // caller otherwise.
  Sha256 m_part;
  std::uint64_t m_inPart = 0;
  std::vector<std::string> m_parts;

  std::mutex m_mutex;
  std::condition_variable m_wake;
  unsigned char const* m_data = nullptr;  // the bytes being hashed; null when idle
  std::size_t m_size = 0;
  std::exception_ptr m_error;
  bool m_stop = false;

  std::thread m_thread;  // last: it starts once everything above is set up
};

}  // namespace

FileDigests sha256OfFileAndParts(int fd, std::uint64_t partSize, std::string const& what,
                                 std::function<void()> const& afterBlock) {
  Sha256 whole;
  // Two buffers: one is read into while the parts' thread hashes the other
  // (they outlive it). Left unset, and no larger than the file, so that a
  // small file does not pay for clearing a megabyte.
  std::size_t const chunk = readChunkFor(fd);
  std::unique_ptr<unsigned char[]> const buffers[2] = {
      std::unique_ptr<unsigned char[]>(new unsigned char[chunk]),
      std::unique_ptr<unsigned char[]>(partSize ? new unsigned char[chunk] : nullptr)};
  std::optional<PartHasher> parts;
  if (partSize) parts.emplace(partSize);
  int current = 0;
  std::uint64_t offset = 0;
  std::uint64_t inPart = 0;  // bytes of the current part read so far
  for (;;) {
    unsigned char* const buffer = buffers[current].get();
    std::size_t want = chunk;
    // A read ends where a part ends.
    if (partSize) want = static_cast<std::size_t>(std::min<std::uint64_t>(want, partSize - inPart));
    ssize_t const got = ::pread(fd, buffer, want, static_cast<off_t>(offset));
    if (got < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category(), "cannot read " + what);
    }
    if (got == 0) break;
    std::size_t const n = static_cast<std::size_t>(got);
    offset += n;
    if (parts) {
      parts->wait();  // done with the other buffer
      parts->start(buffer, n);
      inPart = (inPart + n) % partSize;
      current ^= 1;
    }
    whole.update(buffer, n);
    if (afterBlock) afterBlock();
  }
  FileDigests digests;
  if (parts) {
    parts->wait();
    digests.parts = parts->finish();
  }
  digests.file = whole.hex();
  return digests;
}

std::string sha256OfText(std::string const& text) {
  Sha256 sha;
  sha.update(text.data(), text.size());
  return sha.hex();
}

}  // namespace qxsvc
