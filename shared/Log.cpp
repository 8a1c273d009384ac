#include "shared/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <stdexcept>

std::atomic<bool> g_LogVerbose{false};

Log& Log::inst() {
  static Log log;
  return log;
}

Log::Log() : m_out(&std::cerr) {}

std::ostream& Log::logStreamStartLine() {
  using namespace std::chrono;
  auto const now = system_clock::now();
  std::time_t const secs = system_clock::to_time_t(now);
  auto const millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&secs, &utc);
  char start[64];
  std::snprintf(start, sizeof start, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                static_cast<int>(millis));
  return *m_out << start;
}

void Log::writeLine(char const* level, std::string const& text) {
  boost::lock_guard<boost::mutex> lock(m_mutex);
  logStreamStartLine() << level << text << std::endl;
}

void Log::toStderr() {
  boost::lock_guard<boost::mutex> lock(m_mutex);
  m_out = &std::cerr;
  m_file.reset();
}

void Log::toFile(boost::filesystem::path const& file) {
  // Create the file private to its owner before the stream opens it: a log
  // may name paths and users.
  int const fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd >= 0) ::close(fd);
  auto stream = std::make_unique<std::ofstream>(file.string(), std::ios::out | std::ios::app);
  if (fd < 0 || !*stream) {
    throw std::runtime_error("Log: cannot open the log file \"" + file.string() + "\"");
  }
  boost::lock_guard<boost::mutex> lock(m_mutex);
  m_out = stream.get();
  m_file = std::move(stream);
}

void Log::toStream(std::ostream& os) {
  boost::lock_guard<boost::mutex> lock(m_mutex);
  m_out = &os;
  m_file.reset();
}
