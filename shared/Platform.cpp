#include "shared/Platform.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace {

std::string userCfgDir() {
  char const* xdg = std::getenv("XDG_CONFIG_HOME");
  if (xdg && xdg[0] == '/') return xdg;
  char const* home = std::getenv("HOME");
  if (home && home[0] == '/') return std::string(home) + "/.config";
  long const bufSize = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(bufSize > 0 ? static_cast<std::size_t>(bufSize) : 16384);
  passwd pw{};
  passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &pw, buf.data(), buf.size(), &found) == 0 && found &&
      found->pw_dir && found->pw_dir[0] == '/') {
    return std::string(found->pw_dir) + "/.config";
  }
  throw std::runtime_error("Platform: no configuration directory for user id " +
                           std::to_string(::geteuid()) +
                           ": neither XDG_CONFIG_HOME nor HOME is set and the account has no home");
}

}  // namespace

Platform& Platform::inst() {
  static Platform platform;
  return platform;
}

std::string Platform::sysCfgDir() const {
  boost::lock_guard<boost::mutex> lock(m_mutex);
  return m_sysCfgDir;
}

void Platform::initSysCfgDir() const {
  boost::lock_guard<boost::mutex> lock(m_mutex);
  if (!m_sysCfgDir.empty()) return;
  m_sysCfgDir = ::geteuid() == 0 ? std::string("/etc") : userCfgDir();
}

void Platform::setSysCfgDir(std::string dir) {
  boost::lock_guard<boost::mutex> lock(m_mutex);
  m_sysCfgDir = std::move(dir);
}
