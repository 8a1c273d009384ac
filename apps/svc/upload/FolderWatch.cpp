#include "apps/svc/upload/FolderWatch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace qxsvc {

namespace {

// Entries moved in and files closed after writing are what a drop makes; a
// folder copied in shows only as its creation (files written inside it give
// no event here, the settle scans see them).
constexpr std::uint32_t kWatchMask = IN_MOVED_TO | IN_CLOSE_WRITE | IN_CREATE | IN_ONLYDIR;

std::system_error failure(char const* what) {
  return std::system_error(errno, std::generic_category(), std::string("folder watch: ") + what);
}

void closeIfOpen(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

// What a buffer of inotify events tells the owner: overflow before
// anything else, a file or folder that arrived, or nothing of interest
// (timeout).
FolderWatch::Event classify(char const* events, std::size_t size) {
  using Event = FolderWatch::Event;
  Event result = Event::timeout;
  std::size_t offset = 0;
  while (offset + sizeof(inotify_event) <= size) {
    inotify_event header;
    std::memcpy(&header, events + offset, sizeof header);
    if (header.mask & IN_Q_OVERFLOW) return Event::overflow;
    bool const counts = (header.mask & (IN_MOVED_TO | IN_CLOSE_WRITE)) ||
                        ((header.mask & IN_CREATE) && (header.mask & IN_ISDIR));
    if (counts) result = Event::changed;
    offset += sizeof(inotify_event) + header.len;
  }
  return result;
}

}  // namespace

FolderWatch::FolderWatch(int folderFd) {
  m_inotify = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (m_inotify < 0) throw failure("inotify_init1");
  // The descriptor's entry in /proc names the folder itself, whatever its
  // path is now, so the watch is on the folder that was opened.
  std::string const self = "/proc/self/fd/" + std::to_string(folderFd);
  if (::inotify_add_watch(m_inotify, self.c_str(), kWatchMask) < 0) {
    std::system_error const error = failure("inotify_add_watch on the folder's descriptor");
    closeIfOpen(m_inotify);
    throw error;
  }
  if (::pipe2(m_wakePipe, O_NONBLOCK | O_CLOEXEC) != 0) {
    std::system_error const error = failure("pipe2 for wake()");
    closeIfOpen(m_inotify);
    throw error;
  }
}

FolderWatch::~FolderWatch() {
  closeIfOpen(m_inotify);
  closeIfOpen(m_wakePipe[0]);
  closeIfOpen(m_wakePipe[1]);
}

void FolderWatch::wake() {
  char const byte = 1;
  // A full pipe means a wake is pending already.
  while (::write(m_wakePipe[1], &byte, 1) < 0 && errno == EINTR) {
  }
}

FolderWatch::Event FolderWatch::wait(std::chrono::milliseconds timeout) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point const deadline = Clock::now() + std::max(timeout, std::chrono::milliseconds(0));
  for (;;) {
    Clock::duration const left = deadline - Clock::now();
    // Rounded up so that a wait never ends before its deadline.
    long long const ms = left <= Clock::duration::zero()
                             ? 0
                             : std::chrono::ceil<std::chrono::milliseconds>(left).count();
    pollfd fds[2] = {{m_wakePipe[0], POLLIN, 0}, {m_inotify, POLLIN, 0}};
    int const ready = ::poll(fds, 2, static_cast<int>(std::min<long long>(ms, 1 << 30)));
    if (ready < 0) {
      if (errno == EINTR) continue;
      throw failure("poll");
    }
    if (ready == 0) return Event::timeout;
    if (fds[0].revents) {
      // Events waiting in the inotify queue stay there for the next wait.
      char drain[64];
      while (::read(m_wakePipe[0], drain, sizeof drain) > 0) {
      }
      return Event::woken;
    }
    Event seen = Event::timeout;
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
      ssize_t const got = ::read(m_inotify, buffer, sizeof buffer);
      if (got < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN) break;
        throw failure("reading inotify events");
      }
      if (got == 0) break;
      Event const event = classify(buffer, static_cast<std::size_t>(got));
      if (event == Event::overflow || (event == Event::changed && seen == Event::timeout)) seen = event;
    }
    if (seen != Event::timeout) return seen;
    if (Clock::now() >= deadline) return Event::timeout;
  }
}

}  // namespace qxsvc
