#include "apps/svc/upload/Tree.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <vector>

namespace qxsvc {

namespace {

[[noreturn]] void fail(int err, std::string const& what) {
  throw std::system_error(err, std::generic_category(), what);
}

// Entries deeper than this are not the service's: refuse rather than recurse.
constexpr unsigned kMaxDepth = 64;

void removeBelow(int dir, std::string const& name, unsigned depth) {
  if (::unlinkat(dir, name.c_str(), 0) == 0 || errno == ENOENT) return;
  if (errno != EISDIR && errno != EPERM) fail(errno, "cannot remove \"" + name + "\"");
  if (depth > kMaxDepth) fail(ELOOP, "cannot remove \"" + name + "\"");
  FolderFd const sub(::openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!sub.valid()) fail(errno, "cannot open \"" + name + "\"");
  for (std::string const& entry : entriesOf(sub.get(), name)) removeBelow(sub.get(), entry, depth + 1);
  if (::unlinkat(dir, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) fail(errno, "cannot remove \"" + name + "\"");
}

void copyFile(int fromDir, std::string const& name, int toDir, mode_t mode) {
  FileFd const in(::openat(fromDir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!in.valid()) fail(errno, "cannot open \"" + name + "\"");
  FileFd const out(::openat(toDir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode & 0777));
  if (!out.valid()) fail(errno, "cannot make \"" + name + "\"");
  bool inKernel = true;  // copy_file_range, until the kernel refuses it between these file systems
  std::vector<char> buffer;
  for (;;) {
    ssize_t n = 0;
    if (inKernel) {
      n = ::copy_file_range(in.get(), nullptr, out.get(), nullptr, 1 << 30, 0);
      if (n < 0 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP)) {
        inKernel = false;
        buffer.resize(1 << 20);
        continue;
      }
    } else {
      n = ::read(in.get(), buffer.data(), buffer.size());
      for (ssize_t done = 0; n > 0 && done < n;) {
        ssize_t const wrote = ::write(out.get(), buffer.data() + done, static_cast<std::size_t>(n - done));
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) fail(wrote < 0 ? errno : EIO, "cannot copy \"" + name + "\"");
        done += wrote;
      }
    }
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      fail(errno, "cannot copy \"" + name + "\"");
    }
  }
  if (::fsync(out.get()) != 0) fail(errno, "cannot sync \"" + name + "\"");
}

void copyTree(int fromDir, std::string const& name, int toDir, unsigned depth) {
  struct stat st {};
  if (::fstatat(fromDir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) fail(errno, "cannot read \"" + name + "\"");
  if (S_ISREG(st.st_mode)) return copyFile(fromDir, name, toDir, st.st_mode);
  if (!S_ISDIR(st.st_mode)) return;  // links and special files are not the service's to carry
  if (depth > kMaxDepth) fail(ELOOP, "cannot copy \"" + name + "\"");
  if (::mkdirat(toDir, name.c_str(), 0750) != 0) fail(errno, "cannot make \"" + name + "\"");
  FolderFd const from(::openat(fromDir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  FolderFd const to(::openat(toDir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!from.valid() || !to.valid()) fail(errno, "cannot open \"" + name + "\"");
  for (std::string const& entry : entriesOf(from.get(), name)) copyTree(from.get(), entry, to.get(), depth + 1);
  ::fsync(to.get());
}

}  // namespace

void removeTree(int dir, std::string const& name) { removeBelow(dir, name, 0); }

void moveTree(int fromDir, std::string const& name, int toDir, MoveSync sync) {
  if (::renameat2(fromDir, name.c_str(), toDir, name.c_str(), RENAME_NOREPLACE) == 0) {
    if (sync == MoveSync::now) ::fsync(toDir);
    return;
  }
  if (errno != EXDEV) fail(errno, "cannot move \"" + name + "\"");
  struct stat st {};
  if (::fstatat(toDir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) fail(EEXIST, "cannot move \"" + name + "\"");
  try {
    copyTree(fromDir, name, toDir, 0);
    ::fsync(toDir);
  } catch (...) {
    try {
      removeTree(toDir, name);
    } catch (std::system_error const&) {
      // The half copy stays; the source is whole.
    }
    throw;
  }
  removeTree(fromDir, name);
}

}  // namespace qxsvc
