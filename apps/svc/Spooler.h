// The service's spooler: takes the items that arrive in the incoming folder
// and queues them for upload in the outgoing folder, or moves those that the
// file-type rules refuse to the rejected folder. Items still being received
// (ignored extensions, ".noqx") are left alone.
//
// The reference service has no upload server to talk to, so the outgoing
// folder is where items rest; GetUploads lists them.
//
// One thread of its own scans the incoming folder every interval. Every
// member may be called from any thread.
#ifndef QX_APPS_SVC_SPOOLER_H
#define QX_APPS_SVC_SPOOLER_H

#include "json/Json.h"
#include "settings/Settings.h"

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace qxsvc {

// Moves src into folder under its own name, or name_1, name_2 ... when that
// is taken; never replaces an entry. Returns the new path; throws
// boost::filesystem::filesystem_error when the move fails otherwise.
boost::filesystem::path moveUnique(boost::filesystem::path const& src,
                                   boost::filesystem::path const& folder);

class Spooler {
 public:
  Spooler(Settings const& settings, std::chrono::milliseconds interval);
  ~Spooler();
  Spooler(Spooler const&) = delete;
  Spooler& operator=(Spooler const&) = delete;

  void setSettings(Settings const& settings);
  // Stops taking new items; with discard, moves the items waiting in the
  // incoming folder to the rejected folder and returns how many.
  std::size_t pause(bool discard);
  void resume();
  bool paused() const;
  // Scans the incoming folder once, now (also while paused: no).
  void scanNow();
  // {"uploads":[{"name","folder","type","size","modified"},...]}: the items
  // in the outgoing, backup and rejected folders.
  json::Object uploads() const;

 private:
  // A copy of the settings in force that shares nothing with them.
  Settings current() const;
  void run();
  void scanOnce(Settings const& settings);

  std::chrono::milliseconds const m_interval;

  mutable std::mutex m_mutex;
  std::condition_variable m_wake;  // on m_mutex
  Settings m_settings;             // guarded by m_mutex
  bool m_paused = false;           // guarded by m_mutex
  bool m_stop = false;             // guarded by m_mutex
  std::mutex m_scanMutex;          // one scan at a time
  std::thread m_thread;            // last: starts once the rest is built
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_SPOOLER_H
