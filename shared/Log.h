/// \file
/// The process-wide log.
///
/// One line is written under the log's mutex:
///
/// \code
///   {
///     boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
///     Log::inst().logStreamStartLine() << "ERR:" << "text" << std::endl;
///   }
/// \endcode
///
/// logStreamStartLine() writes the line start (a UTC timestamp with
/// milliseconds and a blank, "2026-11-21T21:53:22.123Z ") and returns the
/// stream of the line; the caller writes the level word, the text, and ends
/// the line with std::endl, which flushes it.
///
/// A line cannot be forged by what it quotes: every control byte of the text
/// (a file name, a message, a server's answer) is escaped on its way to the
/// target, whichever way the line is written. Line feed, carriage return and
/// tab become `\n`, `\r` and `\t`, and every other byte below 0x20 and DEL
/// become `\xNN` (two lower-case hexadecimal digits). A backslash stays as it is: the
/// log quotes JSON text, whose own escapes would double otherwise, and a
/// backslash cannot end a line or hide what follows it. Bytes from 0x80 up
/// pass unchanged, so UTF-8 text stays readable. The one line feed written as such
/// is the line's end: a line feed directly followed by the flush of
/// std::endl (or std::flush). A line left unfinished is ended by the next
/// logStreamStartLine().
///
/// Lines go to standard error until the process chooses another target with
/// toFile() or toStream(); changing the target takes the same mutex. TRACE
/// lines are written only while g_LogVerbose is set.
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

/// Whether TRACE lines are written. Set by the process (for instance from a
/// --verbose option); may be read and written from any thread.
extern QX_SHARED_API std::atomic<bool> g_LogVerbose;

/// The process-wide log (see the file's contract).
class QX_SHARED_API Log {
 public:
  /// The one log of the process, made on first use.
  static Log& inst();

  Log(Log const&) = delete;
  Log& operator=(Log const&) = delete;

  /// Held by the caller while it writes one line.
  boost::mutex& mutex() { return m_mutex; }

  /// Writes the line start and returns the stream of the line, which escapes
  /// control bytes as above and passes the result to the target. Call with
  /// mutex() held.
  std::ostream& logStreamStartLine();

  /// Writes one whole line: the line start, level ("ERR:", "WARNING:", ...)
  /// directly followed by text, and a line feed. Takes mutex() itself.
  void writeLine(char const* level, std::string const& text);

  /// Targets. Each takes mutex() itself: do not call with it held.
  void toStderr();
  /// Appends to the file (created with mode 0600 when missing); throws
  /// std::runtime_error naming the file when it cannot be opened, and keeps
  /// the previous target then.
  void toFile(boost::filesystem::path const& file);
  /// Writes into os, which the caller keeps alive until the target changes.
  void toStream(std::ostream& os);

 private:
  class LineBuf;

  QX_INTERNAL Log();
  QX_INTERNAL ~Log();
  QX_INTERNAL void setTarget(std::ostream* out);

  /// Guards the members below and every line written.
  boost::mutex m_mutex;
  std::unique_ptr<std::ofstream> m_file;  ///< the open log file, if any
  std::ostream* m_out;                    ///< where lines go
  std::unique_ptr<LineBuf> m_lineBuf;     ///< escapes the text into *m_out
  std::unique_ptr<std::ostream> m_line;   ///< the stream of the line, over m_lineBuf
};

/// The text with its control bytes escaped as the log writes them.
QX_SHARED_API std::string logEscaped(std::string const& text);

#endif  // QX_SHARED_LOG_H
