// Helpers of the unit tests: a temporary folder per fixture, a capture of
// the log's lines, JSON text in and out, and the messages of exceptions.
#ifndef QX_TESTS_TESTUTIL_H
#define QX_TESTS_TESTUTIL_H

#include "json/Json.h"
#include "shared/Log.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace qxtest {

inline json::Object parse(std::string const& text) {
  return json::strToObject(text.data(), text.size());
}
// Compact, keys in the order of the document.
inline std::string text(json::Object const& obj) { return json::jsonToString(obj, false); }
inline std::string text(json::Array const& list) { return json::jsonToString(list, false); }

// The message of the json::Exc that f throws. Anything else (another
// exception, or none) fails the test and gives a text that names it.
inline std::string jsonExcMessage(std::function<void()> const& f) {
  try {
    f();
  } catch (json::Exc const& e) {
    return e.what();
  } catch (std::exception const& e) {
    ADD_FAILURE() << "expected json::Exc, got another exception: " << e.what();
    return std::string("(other exception) ") + e.what();
  }
  ADD_FAILURE() << "expected json::Exc, nothing was thrown";
  return "(no json::Exc thrown)";
}

// The message of the std::runtime_error (or an exception derived from it)
// that f throws; "(no exception)" when it throws none.
inline std::string runtimeErrorMessage(std::function<void()> const& f) {
  try {
    f();
  } catch (std::runtime_error const& e) {
    return e.what();
  }
  return "(no exception)";
}

// The keys of obj.
inline std::set<std::string> keysOf(json::Object const& obj) {
  std::set<std::string> keys;
  char const* key;
  json_t* value;
  json_object_foreach(obj.get(), key, value) { keys.insert(key); }
  return keys;
}

// A fresh folder under the system's temporary directory, removed with all its
// content when the object dies.
class TempDir {
 public:
  TempDir() : m_path(boost::filesystem::temp_directory_path() /
                     boost::filesystem::unique_path("qxtest-%%%%-%%%%-%%%%")) {
    boost::filesystem::create_directories(m_path);
  }
  ~TempDir() {
    boost::system::error_code ec;
    boost::filesystem::remove_all(m_path, ec);
  }
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;

  boost::filesystem::path const& path() const { return m_path; }
  boost::filesystem::path operator/(std::string const& name) const { return m_path / name; }

 private:
  boost::filesystem::path m_path;
};

// Writes content to file, creating or truncating it.
inline void writeFile(boost::filesystem::path const& file, std::string const& content) {
  std::ofstream out(file.string(), std::ios::binary | std::ios::trunc);
  out << content;
}

// Makes file size bytes long at once, holes but for start at its beginning,
// so that a big file costs no disk and no time. False (errno says why) when
// it cannot.
inline bool writeSparseFile(boost::filesystem::path const& file, std::uint64_t size, std::string const& start = "",
                            mode_t mode = 0644) {
  int const fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  bool const ok = ::ftruncate(fd, static_cast<off_t>(size)) == 0 &&
                  ::pwrite(fd, start.data(), start.size(), 0) == static_cast<ssize_t>(start.size());
  ::close(fd);
  return ok;
}

inline std::string readFile(boost::filesystem::path const& file) {
  std::ifstream in(file.string(), std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  return all.str();
}

// Sends the log's lines to a string while it lives, then back to standard
// error. lines() checks each line start (the timestamp) and returns the rest of
// each line.
class LogCapture {
 public:
  LogCapture() { Log::inst().toStream(m_stream); }
  ~LogCapture() { Log::inst().toStderr(); }
  LogCapture(LogCapture const&) = delete;
  LogCapture& operator=(LogCapture const&) = delete;

  std::vector<std::string> lines() {
    std::string text;
    {
      boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
      text = m_stream.str();
    }
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
      if (hasLineStart(line)) {
        result.push_back(line.substr(kLineStartSize));
      } else {
        ADD_FAILURE() << "log line without its timestamp: " << line;
        result.push_back(line);
      }
    }
    return result;
  }

  // Whether line begins with "YYYY-MM-DDTHH:MM:SS.mmmZ ".
  static bool hasLineStart(std::string const& line) {
    static char const kShape[] = "dddd-dd-ddTdd:dd:dd.dddZ ";
    if (line.size() < kLineStartSize) return false;
    for (std::size_t i = 0; i < kLineStartSize; ++i) {
      bool const ok = kShape[i] == 'd' ? (line[i] >= '0' && line[i] <= '9') : line[i] == kShape[i];
      if (!ok) return false;
    }
    return true;
  }

  static constexpr std::size_t kLineStartSize = 25;

 private:
  std::ostringstream m_stream;
};

// The lines of a log's text (a service's standard error) without their
// timestamps; a line without one is kept whole, so that comparisons show it.
inline std::vector<std::string> logLines(std::string const& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(LogCapture::hasLineStart(line) ? line.substr(LogCapture::kLineStartSize) : line);
  }
  return lines;
}

}  // namespace qxtest

#endif  // QX_TESTS_TESTUTIL_H
