// The process-wide log.
//
// One line is written under the log's mutex:
//
//   {
//     boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
//     Log::inst().logStreamStartLine() << "ERR:" << "text" << std::endl;
//   }
//
// logStreamStartLine() writes the line start (a UTC timestamp with
// milliseconds and a blank, "2026-11-21T21:53:22.123Z ") and returns the
// stream; the caller writes the level word, the text, and ends the line with
// std::endl, which flushes it.
//
// Lines go to standard error until the process chooses another target with
// toFile() or toStream(); changing the target takes the same mutex. TRACE
// lines are written only while g_LogVerbose is set.
#ifndef QX_SHARED_LOG_H
#define QX_SHARED_LOG_H

#include "json/Export.h"

#include <boost/filesystem/path.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include <atomic>
#include <fstream>
#include <iosfwd>
#include <memory>
#include <string>

// Whether TRACE lines are written. Set by the process (for instance from a
// --verbose option); may be read and written from any thread.
extern QX_SHARED_API std::atomic<bool> g_LogVerbose;

class QX_SHARED_API Log {
 public:
  static Log& inst();

  Log(Log const&) = delete;
  Log& operator=(Log const&) = delete;

  // Held by the caller while it writes one line.
  boost::mutex& mutex() { return m_mutex; }

  // Writes the line start and returns the stream of the line. Call with
  // mutex() held.
  std::ostream& logStreamStartLine();

  // Writes one whole line: the line start, level ("ERR:", "WARNING:", ...)
  // directly followed by text, and a line feed. Takes mutex() itself.
  void writeLine(char const* level, std::string const& text);

  // Targets. Each takes mutex() itself: do not call with it held.
  void toStderr();
  // Appends to the file (created with mode 0600 when missing); throws
  // std::runtime_error naming the file when it cannot be opened, and keeps
  // the previous target then.
  void toFile(boost::filesystem::path const& file);
  // Writes into os, which the caller keeps alive until the target changes.
  void toStream(std::ostream& os);

 private:
  QX_INTERNAL Log();

  // Guards the members below and every line written.
  boost::mutex m_mutex;
  std::unique_ptr<std::ofstream> m_file;  // the open log file, if any
  std::ostream* m_out;                    // where lines go
};

#endif  // QX_SHARED_LOG_H
