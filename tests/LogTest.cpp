// Tests of the process-wide log: the line start, the three targets, the
// verbose flag, and that lines written under the log's mutex stay whole.
#include "shared/Log.h"

#include "tests/TestUtil.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = boost::filesystem;

// "2026-11-21T21:53:22.123Z " and nothing else.
std::regex const kLineStart(R"(^(\d{4})-(\d{2})-(\d{2})T(\d{2}):(\d{2}):(\d{2})\.(\d{3})Z $)");

// Writes one whole line under the log's mutex, as every writer must.
void logLine(std::string const& text) {
  boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
  Log::inst().logStreamStartLine() << text << std::endl;
}

// Splits text into lines without their line feeds.
std::vector<std::string> splitLines(std::string const& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The text of a line after its timestamp; fails the test when the line does
// not start with one.
std::string afterTimestamp(std::string const& line) {
  static std::regex const start(R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}Z (.*)$)");
  std::smatch m;
  if (!std::regex_match(line, m, start)) {
    ADD_FAILURE() << "line without its timestamp: " << line;
    return line;
  }
  return m[1];
}

// Restores the log's target to standard error when the test ends, whatever
// target the test chose.
struct RestoreStderrTarget {
  RestoreStderrTarget() = default;
  RestoreStderrTarget(RestoreStderrTarget const&) = delete;
  RestoreStderrTarget& operator=(RestoreStderrTarget const&) = delete;
  ~RestoreStderrTarget() { Log::inst().toStderr(); }
};

// Sets TZ for the lifetime of the object.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(char const* tz) {
    char const* old = std::getenv("TZ");
    m_had = old != nullptr;
    if (m_had) m_old = old;
    ::setenv("TZ", tz, 1);
    ::tzset();
  }
  ~ScopedTimeZone() {
    if (m_had) {
      ::setenv("TZ", m_old.c_str(), 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
  }
  ScopedTimeZone(ScopedTimeZone const&) = delete;
  ScopedTimeZone& operator=(ScopedTimeZone const&) = delete;

 private:
  bool m_had = false;
  std::string m_old;
};

// Points file descriptor 2 at a file for the lifetime of the object.
class ScopedStderrToFile {
 public:
  explicit ScopedStderrToFile(fs::path const& file) {
    std::cerr.flush();
    m_saved = ::dup(2);
    int const fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (m_saved < 0 || fd < 0) throw std::runtime_error("cannot redirect standard error");
    ::dup2(fd, 2);
    ::close(fd);
  }
  ~ScopedStderrToFile() {
    std::cerr.flush();
    ::dup2(m_saved, 2);
    ::close(m_saved);
  }
  ScopedStderrToFile(ScopedStderrToFile const&) = delete;
  ScopedStderrToFile& operator=(ScopedStderrToFile const&) = delete;

 private:
  int m_saved = -1;
};

long long millisSinceEpoch(std::chrono::system_clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
}

// --------------------------------------------------------------- Log::inst()

TEST(Log, InstIsOneObjectForEveryThread) {
  Log* const here = &Log::inst();
  EXPECT_EQ(here, &Log::inst());
  Log* there = nullptr;
  std::thread([&] { there = &Log::inst(); }).join();
  EXPECT_EQ(here, there);
  EXPECT_EQ(&here->mutex(), &Log::inst().mutex());
}

// ------------------------------------------------------------ the line start

TEST(Log, LineStartIsUtcTimestampWithMillisecondsAndBlank) {
  // A zone far from UTC, so that a local-time stamp would show.
  ScopedTimeZone const zone("QXT-5:30");
  RestoreStderrTarget const restore;
  std::ostringstream out;
  Log::inst().toStream(out);
  auto const before = std::chrono::system_clock::now();
  {
    boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
    Log::inst().logStreamStartLine();
  }
  auto const after = std::chrono::system_clock::now();

  std::string const start = out.str();
  std::smatch m;
  ASSERT_TRUE(std::regex_match(start, m, kLineStart)) << "[" << start << "]";
  std::tm utc{};
  utc.tm_year = std::stoi(m[1]) - 1900;
  utc.tm_mon = std::stoi(m[2]) - 1;
  utc.tm_mday = std::stoi(m[3]);
  utc.tm_hour = std::stoi(m[4]);
  utc.tm_min = std::stoi(m[5]);
  utc.tm_sec = std::stoi(m[6]);
  long long const stamped = static_cast<long long>(::timegm(&utc)) * 1000 + std::stoi(m[7]);
  EXPECT_LE(millisSinceEpoch(before), stamped) << start;
  EXPECT_GE(millisSinceEpoch(after), stamped) << start;
}

// The stream of the line is the log's own (it escapes control bytes), and
// what is written to it lands in the target as it is written.
TEST(Log, LineStartReturnsAStreamThatWritesIntoTheTarget) {
  RestoreStderrTarget const restore;
  std::ostringstream out;
  Log::inst().toStream(out);
  boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
  std::ostream& line = Log::inst().logStreamStartLine();
  EXPECT_NE(static_cast<std::ostream*>(&out), &line);
  line << "ERR:" << 42;
  EXPECT_EQ("ERR:42", afterTimestamp(out.str()));
  line << std::endl;
  EXPECT_EQ('\n', out.str().back());
}

TEST(Log, LineIsTimestampThenCallersTextThenLineFeed) {
  RestoreStderrTarget const restore;
  std::ostringstream out;
  Log::inst().toStream(out);
  logLine("ERR:disk full");
  logLine("WARNING:second");
  std::string const all = out.str();
  ASSERT_EQ(2u, splitLines(all).size()) << all;
  EXPECT_EQ('\n', all.back());
  EXPECT_EQ("ERR:disk full", afterTimestamp(splitLines(all)[0]));
  EXPECT_EQ("WARNING:second", afterTimestamp(splitLines(all)[1]));
  // Each line is exactly the 25 characters of its start plus the text.
  EXPECT_EQ(25u + std::string("ERR:disk full").size(), splitLines(all)[0].size());
}

// ----------------------------------------------------------------- targets

TEST(Log, ToStreamSendsLinesToThatStreamOnly) {
  RestoreStderrTarget const restore;
  std::ostringstream first;
  std::ostringstream second;
  Log::inst().toStream(first);
  logLine("TRACE:one");
  Log::inst().toStream(second);
  logLine("TRACE:two");
  ASSERT_EQ(1u, splitLines(first.str()).size()) << first.str();
  ASSERT_EQ(1u, splitLines(second.str()).size()) << second.str();
  EXPECT_EQ("TRACE:one", afterTimestamp(splitLines(first.str())[0]));
  EXPECT_EQ("TRACE:two", afterTimestamp(splitLines(second.str())[0]));
}

TEST(Log, LogCaptureHelperSeesTheLines) {
  qxtest::LogCapture capture;
  logLine("WARNING:captured");
  EXPECT_EQ(std::vector<std::string>{"WARNING:captured"}, capture.lines());
}

TEST(Log, ToStderrSendsLinesToStandardError) {
  qxtest::TempDir const dir;
  fs::path const errFile = dir / "stderr.txt";
  std::ostringstream other;
  Log::inst().toStream(other);
  {
    ScopedStderrToFile const redirect(errFile);
    Log::inst().toStderr();
    logLine("ERR:to standard error");
  }
  EXPECT_EQ("", other.str());
  std::vector<std::string> const lines = splitLines(qxtest::readFile(errFile));
  ASSERT_EQ(1u, lines.size()) << qxtest::readFile(errFile);
  EXPECT_EQ("ERR:to standard error", afterTimestamp(lines[0]));
}

TEST(LogDeathTest, DefaultTargetIsStandardError) {
  // The child is a fresh process, so the log there has never been redirected.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        logLine("WARNING:default target");
        std::exit(0);
      },
      testing::ExitedWithCode(0),
      "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z WARNING:default target\n");
}

TEST(LogDeathTest, VerboseFlagIsOffByDefault) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(g_LogVerbose.load() ? 1 : 0), testing::ExitedWithCode(0), "");
}

TEST(Log, VerboseFlagIsOffInThisProcess) { EXPECT_FALSE(g_LogVerbose.load()); }

TEST(Log, ToFileCreatesTheFileReadableByItsOwnerOnly) {
  qxtest::TempDir const dir;
  fs::path const file = dir / "qx.log";
  RestoreStderrTarget const restore;
  mode_t const oldMask = ::umask(0);  // the mode must not depend on the umask
  try {
    Log::inst().toFile(file);
  } catch (...) {
    ::umask(oldMask);
    throw;
  }
  ::umask(oldMask);
  struct stat st {};
  ASSERT_EQ(0, ::stat(file.c_str(), &st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(0600u, st.st_mode & 07777u) << std::oct << (st.st_mode & 07777u);
}

TEST(Log, ToFileWritesEachLineWhenItEnds) {
  qxtest::TempDir const dir;
  fs::path const file = dir / "qx.log";
  RestoreStderrTarget const restore;
  Log::inst().toFile(file);
  logLine("ERR:first");
  // std::endl flushed the line: it is in the file while the log keeps it open.
  std::vector<std::string> lines = splitLines(qxtest::readFile(file));
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("ERR:first", afterTimestamp(lines[0]));
  logLine("ERR:second");
  lines = splitLines(qxtest::readFile(file));
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("ERR:second", afterTimestamp(lines[1]));
}

TEST(Log, ToFileAppendsToWhatTheFileHolds) {
  qxtest::TempDir const dir;
  fs::path const file = dir / "qx.log";
  qxtest::writeFile(file, "earlier line\n");
  RestoreStderrTarget const restore;
  Log::inst().toFile(file);
  logLine("WARNING:appended");
  Log::inst().toStderr();
  Log::inst().toFile(file);
  logLine("WARNING:appended again");
  Log::inst().toStderr();

  std::string const content = qxtest::readFile(file);
  std::vector<std::string> const lines = splitLines(content);
  ASSERT_EQ(3u, lines.size()) << content;
  EXPECT_EQ("earlier line", lines[0]);
  EXPECT_EQ("WARNING:appended", afterTimestamp(lines[1]));
  EXPECT_EQ("WARNING:appended again", afterTimestamp(lines[2]));
}

TEST(Log, ToFileUnderARegularFileThrowsNamingTheFile) {
  qxtest::TempDir const dir;
  fs::path const notADir = dir / "plain";
  qxtest::writeFile(notADir, "x");
  fs::path const file = notADir / "qx.log";
  RestoreStderrTarget const restore;
  try {
    Log::inst().toFile(file);
    FAIL() << "toFile did not throw";
  } catch (std::runtime_error const& e) {
    EXPECT_EQ("Log: cannot open the log file \"" + file.string() + "\"", std::string(e.what()));
  }
  EXPECT_FALSE(fs::exists(file));
}

TEST(Log, FailedToFileKeepsThePreviousStream) {
  qxtest::TempDir const dir;
  qxtest::writeFile(dir / "plain", "x");
  RestoreStderrTarget const restore;
  std::ostringstream out;
  Log::inst().toStream(out);
  EXPECT_THROW(Log::inst().toFile(dir / "plain" / "qx.log"), std::runtime_error);
  logLine("ERR:still here");
  std::vector<std::string> const lines = splitLines(out.str());
  ASSERT_EQ(1u, lines.size()) << out.str();
  EXPECT_EQ("ERR:still here", afterTimestamp(lines[0]));
}

TEST(Log, FailedToFileKeepsThePreviousFile) {
  qxtest::TempDir const dir;
  qxtest::writeFile(dir / "plain", "x");
  fs::path const good = dir / "good.log";
  RestoreStderrTarget const restore;
  Log::inst().toFile(good);
  logLine("ERR:before");
  EXPECT_THROW(Log::inst().toFile(dir / "plain" / "qx.log"), std::runtime_error);
  logLine("ERR:after");
  std::vector<std::string> const lines = splitLines(qxtest::readFile(good));
  ASSERT_EQ(2u, lines.size()) << qxtest::readFile(good);
  EXPECT_EQ("ERR:before", afterTimestamp(lines[0]));
  EXPECT_EQ("ERR:after", afterTimestamp(lines[1]));
}

// -------------------------------------------------------------- concurrency

// One line written in many pieces, so that a writer without the lock would
// let other threads' pieces in between.
std::string pieceLine(int thread, int line) {
  return "thread " + std::to_string(thread) + " line " + std::to_string(line) + " " +
         std::string(40, static_cast<char>('a' + thread));
}

// Holds writer threads until all of them exist, so that they run at once.
class StartGate {
 public:
  explicit StartGate(int threads) : m_waiting(threads) {}
  void arriveAndWait() {
    m_waiting.fetch_sub(1);
    while (m_waiting.load() > 0) std::this_thread::yield();
  }

 private:
  std::atomic<int> m_waiting;
};

// The yields in the middle of a line hand the processor to other writers
// while the line is half written; only the mutex keeps them out.
void writeInPieces(StartGate* gate, int thread, int lines) {
  gate->arriveAndWait();
  for (int n = 0; n < lines; ++n) {
    boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
    std::ostream& os = Log::inst().logStreamStartLine();
    os << "WARNING:" << "thread " << thread << " line " << n << ' ';
    for (int i = 0; i < 40; ++i) {
      os << static_cast<char>('a' + thread);
      if (i % 10 == 0) std::this_thread::yield();
    }
    os << std::endl;
  }
}

// Checks that every line of texts is one whole line of a writer and that each
// line of each writer is there exactly once.
void expectWholeLines(std::vector<std::string> const& texts, int threads, int linesEach) {
  std::map<std::string, int> seen;
  for (std::string const& text : texts) {
    for (std::string const& line : splitLines(text)) ++seen[afterTimestamp(line)];
  }
  int missing = 0;
  for (int t = 0; t < threads; ++t) {
    for (int n = 0; n < linesEach; ++n) {
      auto const found = seen.find("WARNING:" + pieceLine(t, n));
      if (found == seen.end()) {
        ++missing;
      } else {
        EXPECT_EQ(1, found->second) << pieceLine(t, n);
        seen.erase(found);
      }
    }
  }
  EXPECT_EQ(0, missing) << "lines not found whole";
  for (auto const& stray : seen) ADD_FAILURE() << "mixed or stray line: " << stray.first;
}

TEST(Log, ConcurrentLinesNeverInterleave) {
  constexpr int kThreads = 6;
  constexpr int kLines = 400;
  RestoreStderrTarget const restore;
  std::ostringstream out;
  Log::inst().toStream(out);
  StartGate gate(kThreads);
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) writers.emplace_back(writeInPieces, &gate, t, kLines);
  for (std::thread& w : writers) w.join();
  Log::inst().toStderr();
  expectWholeLines({out.str()}, kThreads, kLines);
}

TEST(Log, ChangingTheTargetNeverSplitsALine) {
  constexpr int kThreads = 4;
  constexpr int kLines = 300;
  RestoreStderrTarget const restore;
  std::ostringstream first;
  std::ostringstream second;
  Log::inst().toStream(first);
  StartGate gate(kThreads + 1);
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) writers.emplace_back(writeInPieces, &gate, t, kLines);
  gate.arriveAndWait();
  for (int i = 0; i < 2000; ++i) {
    Log::inst().toStream(i % 2 ? first : second);
    std::this_thread::yield();
  }
  for (std::thread& w : writers) w.join();
  Log::inst().toStderr();
  expectWholeLines({first.str(), second.str()}, kThreads, kLines);
}

}  // namespace

TEST(Log, WriteLineWritesLineStartLevelTextAndLineFeed) {
  qxtest::LogCapture capture;
  Log::inst().writeLine("WARNING:", "disk \"a\" nearly full");
  Log::inst().writeLine("ERR:", "");
  std::vector<std::string> const lines = capture.lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("WARNING:disk \"a\" nearly full", lines[0]);
  EXPECT_EQ("ERR:", lines[1]);
}

