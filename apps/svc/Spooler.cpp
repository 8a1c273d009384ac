#include "apps/svc/Spooler.h"

#include "apps/ConfigFile.h"

#include "shared/Log.h"

#include <fcntl.h>
#include <stdio.h>

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace fs = boost::filesystem;

namespace qxsvc {

namespace {

std::uint64_t totalSize(fs::path const& p) {
  boost::system::error_code ec;
  if (!fs::is_directory(p, ec)) {
    std::uint64_t const size = fs::file_size(p, ec);
    return ec ? 0 : size;
  }
  std::uint64_t total = 0;
  for (fs::recursive_directory_iterator it(p, ec), end; !ec && it != end; it.increment(ec)) {
    if (fs::is_regular_file(it->symlink_status())) total += fs::file_size(it->path(), ec);
  }
  return total;
}

}  // namespace

fs::path moveUnique(fs::path const& src, fs::path const& folder) {
  fs::path const name = src.filename();
  std::string const stem = name.stem().string();
  std::string const ext = name.extension().string();
  for (unsigned n = 0;; ++n) {
    fs::path const target = folder / (n == 0 ? name.string() : stem + "_" + std::to_string(n) + ext);
    if (::renameat2(AT_FDCWD, src.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) {
      return target;
    }
    if (errno != EEXIST || n == 100000) {
      throw fs::filesystem_error("cannot move the item", src, target,
                                 boost::system::error_code(errno, boost::system::system_category()));
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
  std::size_t moved = 0;
  for (fs::directory_iterator it(settings.ReceiveFolder), end; it != end; ++it) {
    if (settings.isIgnoredExtension(it->path())) continue;  // still being received
    moveUnique(it->path(), settings.RejectedFolder);
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
  if (!paused()) scanOnce(current());
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

void Spooler::scanOnce(Settings const& settings) {
  std::lock_guard<std::mutex> scan(m_scanMutex);
  boost::system::error_code ec;
  std::vector<fs::path> items;
  for (fs::directory_iterator it(settings.ReceiveFolder, ec), end; !ec && it != end; it.increment(ec)) {
    items.push_back(it->path());
  }
  for (fs::path const& item : items) {
    if (settings.isIgnoredExtension(item)) continue;
    std::string const bad = settings.checkPathForAcceptedExts(item);
    if (bad.empty()) {
      fs::path const to = moveUnique(item, settings.SpoolFolder);
      Log::inst().writeLine("INFO:", "qxlite-svc queued " + item.filename().string() + " as \"" + to.string() + "\"");
    } else {
      fs::path const to = moveUnique(item, settings.RejectedFolder);
      Log::inst().writeLine("WARNING:", "qxlite-svc rejected " + item.filename().string() + ": \"" + bad +
                              "\" is not accepted; moved to \"" + to.string() + "\"");
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
    std::vector<fs::path> entries;
    boost::system::error_code ec;
    for (fs::directory_iterator it(place.path, ec), end; !ec && it != end; it.increment(ec)) {
      if (it->path() == settings.RejectedFolder) continue;  // listed on its own
      entries.push_back(it->path());
    }
    std::sort(entries.begin(), entries.end());
    for (fs::path const& p : entries) {
      json::Object item;
      item.setAt("name", json::Value(p.filename().string()));
      item.setAt("folder", json::Value(place.folder));
      item.setAt("type", json::Value(fs::is_directory(p, ec) ? "folder" : "file"));
      item.setAt("size", json::Value(static_cast<json_int_t>(totalSize(p))));
      std::time_t const modified = fs::last_write_time(p, ec);
      item.setAt("modified", json::Value(static_cast<json_int_t>(ec ? 0 : modified)));
      list.append(item);
    }
  }
  json::Object obj;
  obj.setAt("uploads", list);
  return obj;
}

}  // namespace qxsvc
