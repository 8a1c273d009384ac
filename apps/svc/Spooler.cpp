#include "apps/svc/Spooler.h"

#include "apps/ConfigFile.h"
#include "apps/svc/FolderFd.h"
#include "apps/svc/SpoolPolicy.h"

#include "shared/Log.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace fs = boost::filesystem;

namespace qxsvc {

namespace {

// The folder of role at path, opened and checked, or an exception naming
// it.
FolderFd openOrThrow(char const* role, fs::path const& path) {
  OpenedFolder opened = openSpoolFolder(path, MakeMissing::no);
  if (!opened.why.empty()) throw std::runtime_error(folderName({role, path}) + ": " + opened.why);
  return std::move(opened.fd);
}

// The size of the entry name of dir: a file's size, or the sum of the
// sizes of the files below a folder. Links are not followed.
std::uint64_t totalSize(int dir, std::string const& name, unsigned depth = 0) {
  struct stat st {};
  if (::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return 0;
  if (S_ISREG(st.st_mode)) return static_cast<std::uint64_t>(st.st_size);
  if (!S_ISDIR(st.st_mode) || depth > 64) return 0;
  FolderFd const sub(::openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!sub.valid()) return 0;
  std::uint64_t total = 0;
  try {
    for (std::string const& entry : entriesOf(sub.get(), name)) total += totalSize(sub.get(), entry, depth + 1);
  } catch (std::system_error const&) {
    // An unreadable sub-folder counts as empty.
  }
  return total;
}

}  // namespace

std::string moveUnique(int fromDir, std::string const& name, int toDir) {
  fs::path const entry(name);
  std::string const stem = entry.stem().string();
  std::string const ext = entry.extension().string();
  for (unsigned n = 0;; ++n) {
    std::string const target = n == 0 ? name : stem + "_" + std::to_string(n) + ext;
    if (::renameat2(fromDir, name.c_str(), toDir, target.c_str(), RENAME_NOREPLACE) == 0) return target;
    if (errno != EEXIST || n == 100000) {
      throw std::system_error(errno, std::generic_category(), "cannot move \"" + name + "\" as \"" + target + "\"");
    }
  }
}

Spooler::Spooler(Settings const& settings, std::chrono::milliseconds interval)
    : m_interval(interval), m_settings(qxapp::independentCopy(settings)), m_thread([this] { run(); }) {}

Spooler::~Spooler() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
  }
  m_wake.notify_all();
  m_thread.join();
}

void Spooler::setSettings(Settings const& settings) {
  Settings copy = qxapp::independentCopy(settings);
  std::lock_guard<std::mutex> lock(m_mutex);
  m_settings = std::move(copy);
}

Settings Spooler::current() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return qxapp::independentCopy(m_settings);
}

std::size_t Spooler::pause(bool discard) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_paused = true;
  }
  if (!discard) return 0;
  Settings const settings = current();
  std::lock_guard<std::mutex> scan(m_scanMutex);
  FolderFd const incoming = openOrThrow("incoming", settings.ReceiveFolder);
  FolderFd const rejected = openOrThrow("rejected", settings.RejectedFolder);
  std::size_t moved = 0;
  for (std::string const& name : entriesOf(incoming.get(), settings.ReceiveFolder)) {
    if (settings.isIgnoredExtension(fs::path(name))) continue;  // still being received
    moveUnique(incoming.get(), name, rejected.get());
    ++moved;
  }
  return moved;
}

void Spooler::resume() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_paused = false;
  }
  m_wake.notify_all();
}

bool Spooler::paused() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_paused;
}

void Spooler::scanNow() {
  if (paused()) return;
  try {
    scanOnce(current());
  } catch (std::exception const& e) {
    Log::inst().writeLine("ERR:", std::string("qxlite-svc spool scan failed: ") + e.what());
  }
}

void Spooler::run() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_stop) {
    m_wake.wait_for(lock, m_interval);
    if (m_stop || m_paused) continue;
    Settings const settings = qxapp::independentCopy(m_settings);
    lock.unlock();
    try {
      scanOnce(settings);
    } catch (std::exception const& e) {
      Log::inst().writeLine("ERR:", std::string("qxlite-svc spool scan failed: ") + e.what());
    }
    lock.lock();
  }
}

void Spooler::reportScanProblem(std::string const& problem) {
  if (problem == m_scanProblem) return;
  m_scanProblem = problem;
  if (!problem.empty()) Log::inst().writeLine("ERR:", "qxlite-svc moves nothing: " + problem);
}

void Spooler::scanOnce(Settings const& settings) {
  std::lock_guard<std::mutex> scan(m_scanMutex);
  OpenedFolder const incoming = openSpoolFolder(settings.ReceiveFolder, MakeMissing::no);
  if (!incoming.why.empty()) {
    reportScanProblem(folderName({"incoming", settings.ReceiveFolder}) + ": " + incoming.why);
    return;
  }
  std::vector<std::string> items;
  for (std::string const& name : entriesOf(incoming.fd.get(), settings.ReceiveFolder)) {
    if (!settings.isIgnoredExtension(fs::path(name))) items.push_back(name);
  }
  if (items.empty()) {
    reportScanProblem(std::string());
    return;
  }
  // Both targets are opened before anything moves: a refused one stops the
  // whole scan, so that no item is sorted by which folder still works.
  OpenedFolder const outgoing = openSpoolFolder(settings.SpoolFolder, MakeMissing::no);
  OpenedFolder const rejected = openSpoolFolder(settings.RejectedFolder, MakeMissing::no);
  if (!outgoing.why.empty() || !rejected.why.empty()) {
    reportScanProblem(!outgoing.why.empty()
                          ? folderName({"outgoing", settings.SpoolFolder}) + ": " + outgoing.why
                          : folderName({"rejected", settings.RejectedFolder}) + ": " + rejected.why);
    return;
  }
  reportScanProblem(std::string());
  for (std::string const& name : items) {
    fs::path const item = settings.ReceiveFolder / name;
    std::string const bad = settings.checkPathForAcceptedExts(item);
    if (bad.empty()) {
      std::string const to = moveUnique(incoming.fd.get(), name, outgoing.fd.get());
      Log::inst().writeLine("INFO:", "qxlite-svc queued " + name + " as \"" + (settings.SpoolFolder / to).string() + "\"");
    } else {
      std::string const to = moveUnique(incoming.fd.get(), name, rejected.fd.get());
      Log::inst().writeLine("WARNING:", "qxlite-svc rejected " + name + ": \"" + bad +
                              "\" is not accepted; moved to \"" + (settings.RejectedFolder / to).string() + "\"");
    }
  }
}

json::Object Spooler::uploads() const {
  Settings const settings = current();
  struct Place {
    char const* folder;
    fs::path path;
  };
  Place const places[] = {{"outgoing", settings.SpoolFolder},
                          {"backup", settings.BackupFolder},
                          {"rejected", settings.RejectedFolder}};
  json::Array list;
  for (Place const& place : places) {
    // A folder that cannot be used is not listed (the scans log why).
    OpenedFolder const opened = openSpoolFolder(place.path, MakeMissing::no);
    if (!opened.why.empty()) continue;
    std::vector<std::string> names;
    try {
      names = entriesOf(opened.fd.get(), place.path);
    } catch (std::system_error const&) {
      continue;
    }
    for (std::string const& name : names) {
      if (place.path / name == settings.RejectedFolder) continue;  // listed on its own
      struct stat st {};
      if (::fstatat(opened.fd.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
      json::Object item;
      item.setAt("name", json::Value(name));
      item.setAt("folder", json::Value(place.folder));
      item.setAt("type", json::Value(S_ISDIR(st.st_mode) ? "folder" : "file"));
      item.setAt("size", json::Value(static_cast<json_int_t>(totalSize(opened.fd.get(), name))));
      item.setAt("modified", json::Value(static_cast<json_int_t>(st.st_mtime)));
      list.append(item);
    }
  }
  json::Object obj;
  obj.setAt("uploads", list);
  return obj;
}

}  // namespace qxsvc
