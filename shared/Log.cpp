#include "shared/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <stdexcept>
#include <streambuf>

std::atomic<bool> g_LogVerbose{false};

namespace {

// The bytes that have an escape of their own; other control bytes are
// written as \xNN.
struct NamedEscape {
  char byte;
  char const* escape;
};
NamedEscape const kNamedEscapes[] = {
    {'\n', "\\n"},
    {'\r', "\\r"},
    {'\t', "\\t"},
};

// Appends byte c to out as the log writes it: itself or its escape.
void appendEscaped(std::string& out, unsigned char c) {
  for (NamedEscape const& named : kNamedEscapes) {
    if (c == static_cast<unsigned char>(named.byte)) {
      out += named.escape;
      return;
    }
  }
  if (c < 0x20 || c == 0x7f) {
    static char const kHex[] = "0123456789abcdef";
    char const escape[] = {'\\', 'x', kHex[c >> 4], kHex[c & 0xf]};
    out.append(escape, sizeof escape);
    return;
  }
  out += static_cast<char>(c);
}

}  // namespace

std::string logEscaped(std::string const& text) {
  std::string out;
  out.reserve(text.size());
  for (char const c : text) appendEscaped(out, static_cast<unsigned char>(c));
  return out;
}

// The stream buffer of a line: escapes what the caller writes and passes it
// to the target. A line feed is held back until the next byte or the flush
// shows whether it ends the line (flush) or is part of the text (more bytes
// follow: it is escaped).
class Log::LineBuf : public std::streambuf {
 public:
  explicit LineBuf(std::ostream* target) : m_target(target) {}

  // The old target may be gone already: nothing more is written to it.
  void setTarget(std::ostream* target) {
    m_target = target;
    m_open = false;
    m_heldLineFeed = false;
  }

  // Ends a line that its writer left open, so that the next one starts on a
  // line of its own.
  void endLine() {
    if (m_open) {
      m_target->put('\n');
      m_target->flush();
    }
    m_open = false;
    m_heldLineFeed = false;
  }

  // The line start was written: the line is open.
  void lineStarted() { m_open = true; }

 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    char const ch = traits_type::to_char_type(c);
    xsputn(&ch, 1);
    return c;
  }

  std::streamsize xsputn(char const* s, std::streamsize n) override {
    m_escaped.clear();
    for (std::streamsize i = 0; i < n; ++i) {
      if (m_heldLineFeed) {
        appendEscaped(m_escaped, '\n');
        m_heldLineFeed = false;
      }
      if (s[i] == '\n') {
        m_heldLineFeed = true;
      } else {
        appendEscaped(m_escaped, static_cast<unsigned char>(s[i]));
      }
    }
    m_target->write(m_escaped.data(), static_cast<std::streamsize>(m_escaped.size()));
    m_open = true;
    return n;
  }

  int sync() override {
    if (m_heldLineFeed) {
      m_target->put('\n');
      m_heldLineFeed = false;
      m_open = false;
    }
    m_target->flush();
    return 0;
  }

 private:
  std::ostream* m_target;
  std::string m_escaped;        // reused for each piece
  bool m_heldLineFeed = false;  // a line feed not yet written
  bool m_open = false;          // a line was started and not ended
};

Log& Log::inst() {
  static Log log;
  return log;
}

Log::Log()
    : m_out(&std::cerr),
      m_lineBuf(std::make_unique<LineBuf>(m_out)),
      m_line(std::make_unique<std::ostream>(m_lineBuf.get())) {}

Log::~Log() = default;

std::ostream& Log::logStreamStartLine() {
  using namespace std::chrono;
  m_lineBuf->endLine();
  auto const now = system_clock::now();
  std::time_t const secs = system_clock::to_time_t(now);
  auto const millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&secs, &utc);
  char start[64];
  std::snprintf(start, sizeof start, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                static_cast<int>(millis));
  *m_out << start;
  m_lineBuf->lineStarted();
  // A caller's formatting (std::hex, a width) ends with its line.
  m_line->clear();
  m_line->flags(std::ios_base::dec | std::ios_base::skipws);
  m_line->width(0);
  m_line->precision(6);
  m_line->fill(' ');
  return *m_line;
}

void Log::writeLine(char const* level, std::string const& text) {
  boost::lock_guard<boost::mutex> lock(m_mutex);
  logStreamStartLine() << level << text << std::endl;
}

void Log::setTarget(std::ostream* out) {
  m_lineBuf->setTarget(out);
  m_out = out;
}

void Log::toStderr() {
  boost::lock_guard<boost::mutex> lock(m_mutex);
  setTarget(&std::cerr);
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
  setTarget(stream.get());
  m_file = std::move(stream);
}

void Log::toStream(std::ostream& os) {
  boost::lock_guard<boost::mutex> lock(m_mutex);
  setTarget(&os);
  m_file.reset();
}
