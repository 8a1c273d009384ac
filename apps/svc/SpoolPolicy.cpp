#include "apps/svc/SpoolPolicy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <cstring>

namespace fs = boost::filesystem;

namespace qxsvc {

namespace {

// Places that no configuration may point into.
char const* const kSystemLocations[] = {
    "/etc",   "/usr",  "/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32", "/boot",
    "/dev",   "/proc", "/sys", "/root", "/run", "/var/lib",
};

// The folder with links resolved as far as it exists, and "." and ".."
// removed.
fs::path resolved(fs::path const& p) {
  boost::system::error_code ec;
  fs::path const r = fs::weakly_canonical(p, ec);
  return (ec ? p : r).lexically_normal();
}

// Whether inner is outer or lies inside it (both resolved).
bool isWithin(fs::path const& inner, fs::path const& outer) {
  auto i = inner.begin();
  for (auto o = outer.begin(); o != outer.end(); ++o, ++i) {
    if (*o == ".") continue;  // a trailing separator
    if (i == inner.end() || *i != *o) return false;
  }
  return true;
}

}  // namespace

std::vector<SpoolFolder> spoolFolders(Settings const& s) {
  return {{"incoming", s.ReceiveFolder},
          {"outgoing", s.SpoolFolder},
          {"backup", s.BackupFolder},
          {"rejected", s.RejectedFolder}};
}

std::string checkNotSystemLocation(fs::path const& folder) {
  if (!folder.is_absolute()) return "\"" + folder.string() + "\" is not an absolute path";
  fs::path const r = resolved(folder);
  if (r == fs::path("/")) return "\"" + folder.string() + "\" is the root folder";
  for (char const* location : kSystemLocations) {
    if (isWithin(r, resolved(location))) {
      return "\"" + folder.string() + "\" is inside the system location " + location;
    }
  }
  return std::string();
}

std::string checkFolders(Settings const& settings) {
  std::vector<SpoolFolder> const folders = spoolFolders(settings);
  for (SpoolFolder const& f : folders) {
    std::string const why = checkNotSystemLocation(f.path);
    if (!why.empty()) return std::string("the ") + f.role + " folder " + why;
  }
  // The rejected folder lies inside the backup folder by design.
  for (std::size_t i = 0; i < 3; ++i) {
    for (std::size_t j = 0; j < 3; ++j) {
      if (i == j) continue;
      if (isWithin(resolved(folders[i].path), resolved(folders[j].path))) {
        return std::string("the ") + folders[i].role + " folder \"" + folders[i].path.string() +
               "\" is the same as, or inside, the " + folders[j].role + " folder \"" +
               folders[j].path.string() + "\"";
      }
    }
  }
  return std::string();
}

std::string prepareFolders(Settings const& settings) {
  for (SpoolFolder const& f : spoolFolders(settings)) {
    std::string const name = std::string("the ") + f.role + " folder \"" + f.path.string() + "\"";
    if (::mkdir(f.path.c_str(), 0750) != 0 && errno != EEXIST) {
      boost::system::error_code ec;
      fs::create_directories(f.path.parent_path(), ec);
      if (ec || (::mkdir(f.path.c_str(), 0750) != 0 && errno != EEXIST)) {
        return name + " cannot be made: " + (ec ? ec.message() : std::strerror(errno));
      }
    }
    struct stat st {};
    if (::lstat(f.path.c_str(), &st) != 0) return name + " cannot be examined: " + std::strerror(errno);
    if (!S_ISDIR(st.st_mode)) return name + " is not a folder";
    if (st.st_mode & S_IWOTH) return name + " is writable by other users";
    if (st.st_uid != ::geteuid() && st.st_uid != 0) {
      return name + " belongs to user id " + std::to_string(st.st_uid);
    }
  }
  return std::string();
}

}  // namespace qxsvc
