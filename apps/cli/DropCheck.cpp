#include "apps/cli/DropCheck.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace fs = boost::filesystem;

namespace qxcli {

namespace {

std::string quoted(std::string const& path) { return "\"" + path + "\""; }

// What a path that is neither a file nor a folder is, for people.
char const* kindOf(mode_t mode) {
  struct Kind {
    mode_t type;
    char const* name;
  };
  static Kind const kKinds[] = {{S_IFIFO, "a FIFO"},
                                {S_IFSOCK, "a socket"},
                                {S_IFCHR, "a character device"},
                                {S_IFBLK, "a block device"}};
  for (Kind const& k : kKinds) {
    if ((mode & S_IFMT) == k.type) return k.name;
  }
  return "of an unknown kind";
}

// The problem with a file, or empty; follows a link, as the drop does.
std::string fileProblem(std::string const& path, struct stat const& st) {
  if (!S_ISREG(st.st_mode)) return quoted(path) + " is not a file or a folder (" + kindOf(st.st_mode) + ")";
  int const fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return quoted(path) + " cannot be read: " + std::strerror(errno);
  ::close(fd);
  return std::string();
}

// The entries of a folder by name; throws fs::filesystem_error.
std::vector<fs::path> entriesOf(fs::path const& folder) {
  std::vector<fs::path> entries;
  for (fs::directory_iterator it(folder), end; it != end; ++it) entries.push_back(it->path());
  std::sort(entries.begin(), entries.end());
  return entries;
}

std::string acceptedTypes(Settings const& settings) {
  std::vector<std::string> exts(settings.SrvFileExtsSet.begin(), settings.SrvFileExtsSet.end());
  std::sort(exts.begin(), exts.end());
  std::string text;
  for (std::string const& e : exts) text += (text.empty() ? "" : ", ") + e;
  return text;
}

std::string typeProblem(fs::path const& path, bool inFolder, Settings const& settings) {
  if (!settings.isBadFileExt(path, inFolder)) return std::string();
  std::string const ext = Settings::fixExtForSet(path.extension().string());
  if (!settings.SrvFileExtsSet.empty() && settings.SrvFileExtsSet.count(ext) == 0) {
    return quoted(path.string()) + ": the service does not accept " +
           (ext.empty() ? std::string("files without a type") : "files of type \"" + ext + "\"") +
           " (it accepts " + acceptedTypes(settings) + ")";
  }
  if (Settings::INDIR_BAD_EXTS.count(ext) != 0) {
    return quoted(path.string()) + ": an archive is sent on its own, not inside a folder";
  }
  return quoted(path.string()) + ": the service does not accept it";
}

}  // namespace

std::vector<std::string> localDropProblems(std::vector<std::string> const& paths) {
  std::vector<std::string> problems;
  for (std::string const& path : paths) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
      problems.push_back(errno == ENOENT ? quoted(path) + " does not exist"
                                         : quoted(path) + " cannot be read: " + std::strerror(errno));
      continue;
    }
    if (!S_ISDIR(st.st_mode)) {
      std::string const problem = fileProblem(path, st);
      if (!problem.empty()) problems.push_back(problem);
      continue;
    }
    std::vector<fs::path> entries;
    try {
      entries = entriesOf(path);
    } catch (fs::filesystem_error const& e) {
      problems.push_back(quoted(path) + " cannot be read: " + e.code().message());
      continue;
    }
    for (fs::path const& entry : entries) {
      struct stat est {};
      if (::stat(entry.c_str(), &est) != 0) {
        problems.push_back(quoted(entry.string()) + " cannot be read: " + std::strerror(errno));
      } else if (S_ISDIR(est.st_mode)) {
        problems.push_back(quoted(entry.string()) +
                           " is a sub-folder: only the files directly in a dropped folder are sent");
      } else {
        std::string const problem = fileProblem(entry.string(), est);
        if (!problem.empty()) problems.push_back(problem);
      }
    }
  }
  return problems;
}

std::vector<std::string> typeDropProblems(std::vector<std::string> const& paths, Settings const& settings) {
  std::vector<std::string> problems;
  for (std::string const& path : paths) {
    boost::system::error_code ec;
    fs::file_status const status = fs::status(path, ec);
    if (ec) continue;  // the local checks say why
    if (!fs::is_directory(status)) {
      std::string const problem = typeProblem(path, false, settings);
      if (!problem.empty()) problems.push_back(problem);
      continue;
    }
    std::vector<fs::path> entries;
    try {
      entries = entriesOf(path);
    } catch (fs::filesystem_error const&) {
      continue;
    }
    for (fs::path const& entry : entries) {
      if (fs::is_directory(fs::status(entry, ec))) continue;  // a sub-folder: the local checks say so
      std::string const problem = typeProblem(entry, true, settings);
      if (!problem.empty()) problems.push_back(problem);
    }
  }
  return problems;
}

}  // namespace qxcli
