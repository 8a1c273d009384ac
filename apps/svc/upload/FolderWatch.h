// Notice of what arrives in the incoming folder: inotify on the folder's
// descriptor for entries moved in, files closed after writing and folders
// made, so that a drop is seen at once rather than at the next scan. Files
// written inside a folder that is being copied in give no event: the
// owner's settle scans see them.
//
// A watch only wakes its owner: what to take is decided by listing the
// folder. wait() reports a full rescan when the kernel's queue overflowed,
// and the owner also rescans at start and every 60 s, so a missed event
// delays an item, never loses it.
//
// One thread uses a watch at a time; wake() may be called from any thread.
#ifndef QX_APPS_SVC_UPLOAD_FOLDERWATCH_H
#define QX_APPS_SVC_UPLOAD_FOLDERWATCH_H

#include <chrono>
#include <string>
#include <vector>

namespace qxsvc {

class FolderWatch {
 public:
  // Watches the folder open as folderFd (the descriptor is not kept; the
  // watch follows the folder, not its path). Throws std::system_error naming
  // what failed.
  explicit FolderWatch(int folderFd);
  ~FolderWatch();
  FolderWatch(FolderWatch const&) = delete;
  FolderWatch& operator=(FolderWatch const&) = delete;

  enum class Event { timeout, changed, overflow, woken };
  // Waits up to timeout for something to arrive in the folder (or wake()).
  // A pending wake() is reported first; the folder's events then wait for
  // the next call. Each call reads all queued events: overflow when the
  // kernel dropped some, else changed.
  Event wait(std::chrono::milliseconds timeout);
  void wake();
  // The names of the entries moved into the folder (renamed in whole, as a
  // drop's final step does) since the last call; the waiting thread's.
  std::vector<std::string> takeMovedIn();

 private:
  int m_inotify = -1;
  int m_wakePipe[2] = {-1, -1};
  std::vector<std::string> m_movedIn;
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_FOLDERWATCH_H
