// The service's spooler: takes the items that arrive in the incoming folder
// and queues them for upload in the outgoing folder, or moves those that the
// file-type rules refuse to the rejected folder. Items still being received
// (ignored extensions, ".noqx") are left alone.
//
// The reference service has no upload server to talk to, so the outgoing
// folder is where items rest; GetUploads lists them.
//
// Every move works relative to the three folders opened component by
// component without following links, and checked again at each scan (see
// FolderFd.h): a folder whose path was changed after the configuration was
// saved (a component swapped for a link, a folder given to another user)
// stops the moves with one log line naming it, and nothing is moved.
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
#include <string>
#include <mutex>
#include <thread>

namespace qxsvc {

// Moves the entry name of the folder fromDir into the folder toDir under its
// own name, or name_1, name_2 ... when that is taken; never replaces an
// entry. Returns the new name; throws std::system_error naming the entry
// when the move fails otherwise.
std::string moveUnique(int fromDir, std::string const& name, int toDir);

class Spooler {
 public:
  Spooler(Settings const& settings, std::chrono::milliseconds interval);
  ~Spooler();
  Spooler(Spooler const&) = delete;
  Spooler& operator=(Spooler const&) = delete;

  void setSettings(Settings const& settings);
  // Stops taking new items; with discard, moves the items waiting in the
  // incoming folder to the rejected folder and returns how many. Throws
  // std::runtime_error naming the folder when one cannot be used.
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
  // Logs a problem that stops the scans, once while it lasts.
  void reportScanProblem(std::string const& problem);

  std::chrono::milliseconds const m_interval;

  mutable std::mutex m_mutex;
  std::condition_variable m_wake;  // on m_mutex
  Settings m_settings;             // guarded by m_mutex
  bool m_paused = false;           // guarded by m_mutex
  bool m_stop = false;             // guarded by m_mutex
  std::mutex m_scanMutex;          // one scan at a time
  std::string m_scanProblem;       // guarded by m_scanMutex: the last one logged
  std::thread m_thread;            // last: starts once the rest is built
};

}  // namespace qxsvc

#endif  // QX_APPS_SVC_SPOOLER_H
