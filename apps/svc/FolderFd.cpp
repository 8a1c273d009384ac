#include "apps/svc/FolderFd.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <vector>

namespace fs = boost::filesystem;

namespace qxsvc {

FolderFd::~FolderFd() {
  if (m_fd >= 0) ::close(m_fd);
}

FolderFd& FolderFd::operator=(FolderFd&& other) noexcept {
  if (this != &other) {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = other.release();
  }
  return *this;
}

int FolderFd::release() noexcept {
  int const fd = m_fd;
  m_fd = -1;
  return fd;
}

namespace {

std::string quoted(fs::path const& p) { return "\"" + p.string() + "\""; }

std::string modeText(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

bool trustedOwner(uid_t uid) { return uid == 0 || uid == ::geteuid(); }

// Why the folder at path (with status st) is writable by someone else, or
// the empty string. A sticky parent is judged together with its child
// (stickyCounts): others may write into it but not rename or remove what
// they do not own.
std::string checkWritable(fs::path const& path, struct stat const& st, bool stickyCounts) {
  if (stickyCounts && (st.st_mode & S_ISVTX)) return std::string();
  if (st.st_mode & S_IWOTH) return quoted(path) + " is writable by others (mode " + modeText(st.st_mode) + ")";
  if (st.st_mode & S_IWGRP) return quoted(path) + " is writable by its group (mode " + modeText(st.st_mode) + ")";
  return std::string();
}

// What the entry name below dir is, when it cannot be opened as a folder.
std::string notAFolder(int dir, char const* name, fs::path const& path) {
  struct stat st {};
  if (::fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) {
    return quoted(path) + " is a symbolic link";
  }
  return quoted(path) + " is not a folder";
}

}  // namespace

namespace {

// How far a walk goes.
enum class Walk {
  whole,         // to the folder, which must exist and belong to this user
  untilMissing,  // to the last component that exists
};

// The walk of openSpoolFolder; with Walk::untilMissing it stops at the
// first missing component and returns the last existing one, opened.
OpenedFolder walk(fs::path const& folder, MakeMissing make, Walk how, fs::path* reached) {
  OpenedFolder result;
  fs::path const normal = folder.lexically_normal();
  if (!normal.is_absolute()) {
    result.why = quoted(folder) + " is not an absolute path";
    return result;
  }
  fs::path here("/");
  FolderFd dir(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!dir.valid()) {
    result.why = "\"/\" cannot be opened: " + std::string(std::strerror(errno));
    return result;
  }
  std::vector<std::string> names;
  for (fs::path const& part : normal.relative_path()) {
    if (part != "." && !part.empty()) names.push_back(part.string());
  }
  struct stat st {};
  if (::fstat(dir.get(), &st) != 0) {
    result.why = "\"/\" cannot be examined: " + std::string(std::strerror(errno));
    return result;
  }
  if (!trustedOwner(st.st_uid)) {
    result.why = "\"/\" belongs to user id " + std::to_string(st.st_uid);
    return result;
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    bool const last = i + 1 == names.size();
    char const* const name = names[i].c_str();
    fs::path const path = here / names[i];
    // The parent must be safe before anything is opened or made in it.
    std::string why = checkWritable(here, st, true);
    if (!why.empty()) {
      result.why = why;
      return result;
    }
    bool const parentSticky = (st.st_mode & S_ISVTX) && (st.st_mode & (S_IWOTH | S_IWGRP));
    mode_t const parentMode = st.st_mode;
    int const flags = (last ? O_RDONLY : O_PATH) | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int fd = ::openat(dir.get(), name, flags);
    if (fd < 0 && errno == ENOENT && make == MakeMissing::yes) {
      if (::mkdirat(dir.get(), name, 0750) != 0 && errno != EEXIST) {
        result.why = quoted(path) + " cannot be made: " + std::strerror(errno);
        return result;
      }
      fd = ::openat(dir.get(), name, flags);
    }
    if (fd < 0 && errno == ENOENT && how == Walk::untilMissing) {
      result.fd = std::move(dir);
      if (reached) *reached = here;
      return result;
    }
    if (fd < 0) {
      int const err = errno;
      if (err == ENOTDIR || err == ELOOP) result.why = notAFolder(dir.get(), name, path);
      else if (err == ENOENT) result.why = quoted(path) + " does not exist";
      else result.why = quoted(path) + " cannot be opened: " + std::strerror(err);
      return result;
    }
    FolderFd child(fd);
    if (::fstat(child.get(), &st) != 0) {
      result.why = quoted(path) + " cannot be examined: " + std::strerror(errno);
      return result;
    }
    if (!trustedOwner(st.st_uid)) {
      std::string const owner = quoted(path) + " belongs to user id " + std::to_string(st.st_uid);
      // Below a sticky folder that others may write, the child's owner is
      // what tells a safe child from one that someone else planted.
      result.why = parentSticky ? quoted(here) + " is writable by others (mode " + modeText(parentMode) + ") and " + owner
                                : owner;
      return result;
    }
    dir = std::move(child);
    here = path;
  }
  if (reached) *reached = here;
  if (how == Walk::untilMissing) {
    result.fd = std::move(dir);
    return result;
  }
  if (st.st_uid != ::geteuid()) {
    result.why = quoted(here) + " belongs to user id " + std::to_string(st.st_uid) +
                 ", not to the service's user id " + std::to_string(::geteuid());
    return result;
  }
  std::string const why = checkWritable(here, st, false);
  if (!why.empty()) {
    result.why = why;
    return result;
  }
  if (names.empty()) {
    // "/" itself was opened with O_PATH; it is refused elsewhere anyway.
    result.fd = FolderFd(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  } else {
    result.fd = std::move(dir);
  }
  return result;
}

}  // namespace

OpenedFolder openSpoolFolder(fs::path const& folder, MakeMissing make) {
  return walk(folder, make, Walk::whole, nullptr);
}

std::string checkExistingPart(fs::path const& folder, fs::path& lastExisting) {
  return walk(folder, MakeMissing::no, Walk::untilMissing, &lastExisting).why;
}

std::vector<std::string> entriesOf(int dir, fs::path const& path) {
  int const fd = ::openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const listing = fd < 0 ? nullptr : ::fdopendir(fd);
  if (!listing) {
    int const err = errno;
    if (fd >= 0) ::close(fd);
    throw std::system_error(err, std::generic_category(), "cannot read \"" + path.string() + "\"");
  }
  std::vector<std::string> names;
  errno = 0;
  while (dirent const* entry = ::readdir(listing)) {
    std::string const name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
    errno = 0;
  }
  int const err = errno;
  ::closedir(listing);
  if (err != 0) throw std::system_error(err, std::generic_category(), "cannot read \"" + path.string() + "\"");
  std::sort(names.begin(), names.end());
  return names;
}

FileFd openBelow(int dir, std::string const& relPath, int flags) {
  auto fail = [&relPath](int err) {
    return std::system_error(err, std::generic_category(), "cannot open \"" + relPath + "\"");
  };
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= relPath.size()) {
    std::size_t const slash = std::min(relPath.find('/', start), relPath.size());
    std::string part = relPath.substr(start, slash - start);
    if (part.empty() || part == "." || part == "..") throw fail(EINVAL);
    parts.push_back(std::move(part));
    start = slash + 1;
  }
  FolderFd here;
  int at = dir;
  for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
    FolderFd next(::openat(at, parts[i].c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next.valid()) throw fail(errno);
    here = std::move(next);
    at = here.get();
  }
  FileFd last(::openat(at, parts.back().c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
  if (!last.valid()) throw fail(errno);
  return last;
}

}  // namespace qxsvc
