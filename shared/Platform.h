/// \file
/// Facts of the platform that both processes need.
///
/// The system configuration directory is where the products of this maker keep
/// their configuration: "/etc" for a process that runs as root, otherwise the
/// user's configuration directory ($XDG_CONFIG_HOME when it is an absolute
/// path, else $HOME/.config, else the home directory of the user's account
/// followed by "/.config").
///
/// Platform::inst() may be called from any thread; its members lock.
#ifndef QX_SHARED_PLATFORM_H
#define QX_SHARED_PLATFORM_H

#include "json/Export.h"

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include <string>

/// Facts of the platform (see the file's contract).
class QX_SHARED_API Platform {
 public:
  /// The one object of the process, made on first use.
  static Platform& inst();

  Platform(Platform const&) = delete;
  Platform& operator=(Platform const&) = delete;

  /// The system configuration directory as text; empty until
  /// initSysCfgDir() or setSysCfgDir() has run.
  std::string sysCfgDir() const;
  /// Fills the directory when it is still empty (see above). Throws
  /// std::runtime_error when no home directory can be found for a user who is
  /// not root.
  void initSysCfgDir() const;
  /// Sets the directory explicitly (a process that keeps its configuration
  /// elsewhere, a test).
  void setSysCfgDir(std::string dir);

 private:
  Platform() = default;

  mutable boost::mutex m_mutex;
  mutable std::string m_sysCfgDir;  ///< guarded by m_mutex
};

#endif  // QX_SHARED_PLATFORM_H
