#include "apps/svc/SpoolPolicy.h"

#include "apps/svc/FolderFd.h"

#include <pwd.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

namespace fs = boost::filesystem;

namespace qxsvc {

namespace {

// Places that no spool folder may lie in. An entry ending in '*' stands for
// every folder whose name begins with what precedes it. A folder inside
// several is reported by the longest.
char const* const kSystemLocations[] = {
    "/bin",  "/boot", "/dev",  "/etc", "/home", "/lib*", "/opt", "/proc", "/root",
    "/run",  "/sbin", "/srv",  "/sys", "/usr",
    "/var",  "/var/backups", "/var/cache", "/var/lib", "/var/local", "/var/log",
    "/var/mail", "/var/opt", "/var/spool", "/var/www",
};

// The service's own places inside system locations.
char const* const kServicePlaces[] = {
    "/var/spool/QXUpload",
    "/var/lib/qxlite",
};

// The folder with links resolved as far as it exists, and "." and ".."
// removed.
fs::path resolved(fs::path const& p) {
  boost::system::error_code ec;
  fs::path const r = fs::weakly_canonical(p, ec);
  return (ec ? p : r).lexically_normal();
}

// Whether inner is outer or lies inside it (both normal).
bool isWithin(fs::path const& inner, fs::path const& outer) {
  auto i = inner.begin();
  for (auto o = outer.begin(); o != outer.end(); ++o, ++i) {
    if (*o == ".") continue;  // a trailing separator
    if (i == inner.end() || *i != *o) return false;
  }
  return true;
}

// The system location that folder (absolute, normal) lies in, or the empty
// path: the longest entry that holds it, a '*' entry standing for the
// matching folder itself.
fs::path systemLocationOf(fs::path const& folder) {
  fs::path found;
  for (std::string entry : kSystemLocations) {
    fs::path location;
    if (!entry.empty() && entry.back() == '*') {
      entry.pop_back();
      fs::path const parent = fs::path(entry).parent_path();
      std::string const prefix = fs::path(entry).filename().string();
      if (!isWithin(folder, parent)) continue;
      auto it = folder.begin();
      for (auto p = parent.begin(); p != parent.end(); ++p) ++it;
      if (it == folder.end() || it->string().compare(0, prefix.size(), prefix) != 0) continue;
      location = parent / *it;
    } else {
      location = entry;
      if (!isWithin(folder, location)) continue;
    }
    if (location.string().size() > found.string().size()) found = location;
  }
  return found;
}

// The home folder of this process's user when it is not root, whose home
// lies in a system location.
fs::path ownHome() {
  if (::geteuid() == 0) return fs::path();
  struct passwd pw {};
  struct passwd* found = nullptr;
  char buffer[4096];
  if (::getpwuid_r(::geteuid(), &pw, buffer, sizeof buffer, &found) != 0 || !found || !pw.pw_dir) {
    return fs::path();
  }
  fs::path const home = fs::path(pw.pw_dir).lexically_normal();
  return home.is_absolute() && home != "/" ? home : fs::path();
}

bool isServicePlace(fs::path const& folder) {
  for (char const* place : kServicePlaces) {
    if (isWithin(folder, place)) return true;
  }
  fs::path const home = ownHome();
  return !home.empty() && isWithin(folder, home);
}

// The system location folder lies in, unless it is one of the service's
// own places; the empty path otherwise.
fs::path forbiddenLocationOf(fs::path const& folder) {
  return isServicePlace(folder) ? fs::path() : systemLocationOf(folder);
}

std::string quoted(fs::path const& p) { return "\"" + p.string() + "\""; }

}  // namespace

std::vector<SpoolFolder> spoolFolders(Settings const& s) {
  return {{"incoming", s.ReceiveFolder},
          {"outgoing", s.SpoolFolder},
          {"backup", s.BackupFolder},
          {"rejected", s.RejectedFolder}};
}

std::string folderName(SpoolFolder const& folder) {
  return std::string("the ") + folder.role + " folder " + quoted(folder.path);
}

std::string checkLocation(fs::path const& folder) {
  if (!folder.is_absolute()) return quoted(folder) + " is not an absolute path";
  fs::path const normal = folder.lexically_normal();
  fs::path const real = resolved(folder);
  if (normal == "/" || real == "/") return quoted(folder) + " is the root folder";
  fs::path const given = forbiddenLocationOf(normal);
  if (!given.empty()) return quoted(folder) + ": " + quoted(given) + " is a system location";
  fs::path const location = forbiddenLocationOf(real);
  if (!location.empty()) {
    return quoted(folder) + ": " + quoted(location) + " is a system location (the folder's real path is " +
           quoted(real) + ")";
  }
  return std::string();
}

std::string checkFolders(Settings const& settings) {
  for (SpoolFolder const& f : spoolFolders(settings)) {
    std::string const why = checkLocation(f.path);
    if (!why.empty()) return std::string("the ") + f.role + " folder " + why;
  }
  return checkOverlap(settings);
}

std::string checkOverlap(Settings const& settings) {
  std::vector<SpoolFolder> const folders = spoolFolders(settings);
  // The rejected folder lies inside the backup folder by design.
  for (std::size_t i = 0; i < 3; ++i) {
    for (std::size_t j = 0; j < 3; ++j) {
      if (i == j) continue;
      if (isWithin(resolved(folders[i].path), resolved(folders[j].path))) {
        return folderName(folders[i]) + " is the same as, or inside, " + folderName(folders[j]);
      }
    }
  }
  return std::string();
}

std::string prepareFolders(Settings const& settings) {
  for (SpoolFolder const& f : spoolFolders(settings)) {
    OpenedFolder const opened = openSpoolFolder(f.path, MakeMissing::yes);
    if (!opened.why.empty()) return folderName(f) + ": " + opened.why;
  }
  return std::string();
}

}  // namespace qxsvc
