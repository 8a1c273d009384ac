// SHA-256 of files and of byte streams (OpenSSL's EVP interface), as
// lower-case hex. An Sha256 is used by one thread at a time; a moved-from
// one may only be assigned to or destroyed.
#ifndef QX_APPS_SVC_UPLOAD_SHA256_H
#define QX_APPS_SVC_UPLOAD_SHA256_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qxsvc {

class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(Sha256 const&) = delete;
  Sha256& operator=(Sha256 const&) = delete;
  Sha256(Sha256&&) noexcept;
  Sha256& operator=(Sha256&&) noexcept;

  void update(void const* data, std::size_t size);
  // The digest of what was given; the object starts again afterwards.
  std::string hex();

 private:
  struct Ctx;
  std::unique_ptr<Ctx> m_ctx;
};

// The digest of the file open as fd, read from its start with pread().
// Throws std::system_error naming what (the caller's text) on a read error.
// afterBlock, when given, is called after each block read: a long hash
// still shows that its thread is alive.
std::string sha256OfFile(int fd, std::string const& what, std::function<void()> const& afterBlock = nullptr);

// The digest of the whole file and, when partSize is not 0, of each of its
// pieces of partSize bytes (the last one shorter), in one reading (the
// parts' digests on a second thread, from the same buffers): what a
// multipart upload signs, so that its parts need not be read once more.
struct FileDigests {
  std::string file;
  std::vector<std::string> parts;
};
// afterBlock as for sha256OfFile.
FileDigests sha256OfFileAndParts(int fd, std::uint64_t partSize, std::string const& what,
                                 std::function<void()> const& afterBlock = nullptr);

std::string sha256OfText(std::string const& text);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_SHA256_H
