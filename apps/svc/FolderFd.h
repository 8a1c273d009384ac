// An open file descriptor that the holder owns, and the opening of a spool
// folder one path component at a time without following links.
//
// The service checks a spool folder by its path once, but moves items into
// it again and again; whoever can replace a component of that path (a
// folder they own above the spool) could otherwise redirect a later move.
// So every later operation works relative to descriptors opened with
// O_NOFOLLOW from "/" down, and the owner and mode of each component are
// checked on the open descriptor, not on a path that may change meanwhile.
//
// A FolderFd is used by one thread at a time; opening folders may happen on
// any thread.
#ifndef QX_APPS_SVC_FOLDERFD_H
#define QX_APPS_SVC_FOLDERFD_H

#include <boost/filesystem/path.hpp>

#include <string>
#include <vector>

namespace qxsvc {

class FolderFd {
 public:
  FolderFd() = default;
  explicit FolderFd(int fd) : m_fd(fd) {}
  ~FolderFd();
  FolderFd(FolderFd const&) = delete;
  FolderFd& operator=(FolderFd const&) = delete;
  FolderFd(FolderFd&& other) noexcept : m_fd(other.release()) {}
  FolderFd& operator=(FolderFd&& other) noexcept;

  bool valid() const { return m_fd >= 0; }
  int get() const { return m_fd; }
  // Hands the descriptor over; this object holds none afterwards.
  int release() noexcept;

 private:
  int m_fd = -1;
};

// The same holder for a file's descriptor.
using FileFd = FolderFd;

// Whether openSpoolFolder makes the components that are missing.
enum class MakeMissing { no, yes };

struct OpenedFolder {
  FolderFd fd;      // valid when why is empty
  std::string why;  // what refused the folder, naming the component
};

// Opens folder (an absolute, normal path) component by component from "/"
// with O_DIRECTORY|O_NOFOLLOW, for reading. Each component must be a folder,
// not a link, owned by root or by this process's user and writable by no
// one else; a sticky folder writable by others (such as /tmp) is accepted
// above a component that root or this user owns, since others can then
// neither rename nor remove it. The folder itself must belong to this
// process's user. With MakeMissing::yes, missing components are made (mode
// 0750) below the last one that passed.
//
// On refusal, why reads for instance "\"/tmp/a\" is writable by others
// (mode 0777)" or "\"/srv/x/out\" is a symbolic link".
OpenedFolder openSpoolFolder(boost::filesystem::path const& folder, MakeMissing make);

// The same checks for the part of folder that exists, down to its last
// existing component (set in lastExisting), which may be owned by root; that
// component must also be safe to make the rest in. Makes nothing. Returns
// why the folder could not be used, or the empty string.
std::string checkExistingPart(boost::filesystem::path const& folder, boost::filesystem::path& lastExisting);

// The names in the folder open as dir (path names it in errors), sorted,
// without "." and "..". Throws std::system_error when it cannot be read.
std::vector<std::string> entriesOf(int dir, boost::filesystem::path const& path);

// Opens relPath ("a/b/c", relative, no "." or ".." components) below dir
// one component at a time, every one with O_NOFOLLOW: a link anywhere on
// the way fails with ELOOP or ENOTDIR. flags apply to the last component
// (O_CLOEXEC and O_NOFOLLOW are added). Throws std::system_error naming
// relPath.
FileFd openBelow(int dir, std::string const& relPath, int flags);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_FOLDERFD_H
