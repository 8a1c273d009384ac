// Helpers of the file-drop tests: ways to make a folder refuse writes that
// hold for root (an immutable folder, a tiny tmpfs), a log watcher that a test
// can wait on, and small file helpers.
#ifndef QX_TESTS_DROPTESTUTIL_H
#define QX_TESTS_DROPTESTUTIL_H

#include "shared/Log.h"
#include "tests/TestUtil.h"

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

namespace qxtest {

// The names of the entries directly in folder, sorted.
inline std::vector<std::string> listNames(boost::filesystem::path const& folder) {
  std::vector<std::string> names;
  for (boost::filesystem::directory_iterator it(folder), end; it != end; ++it) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Whether name is base, then at most maxCounters counters ("_" and a
// decimal number from 1 up, without leading zeros), then ext. The numbers go
// to numbers when given.
inline bool isCountedName(std::string const& name, std::string const& base, std::string const& ext,
                          std::size_t maxCounters, std::vector<unsigned long long>* numbers = nullptr) {
  if (name.size() < base.size() + ext.size() || name.compare(0, base.size(), base) != 0 ||
      name.compare(name.size() - ext.size(), ext.size(), ext) != 0) {
    return false;
  }
  std::string const middle = name.substr(base.size(), name.size() - base.size() - ext.size());
  std::vector<unsigned long long> found;
  for (std::size_t i = 0; i < middle.size();) {
    if (middle[i] != '_') return false;
    std::size_t j = ++i;
    while (j < middle.size() && std::isdigit(static_cast<unsigned char>(middle[j]))) ++j;
    if (j == i || middle[i] == '0' || j - i > 19) return false;
    found.push_back(std::stoull(middle.substr(i, j - i)));
    i = j;
  }
  if (found.size() > maxCounters) return false;
  if (numbers) *numbers = found;
  return true;
}

// Sets the immutable flag of a folder while it lives: nobody, root included,
// can then create, remove or rename an entry in it. ok() tells whether the
// file system took the flag.
class ImmutableFolder {
 public:
  explicit ImmutableFolder(boost::filesystem::path folder) : m_folder(std::move(folder)) {
    m_ok = setFlag(true);
  }
  ~ImmutableFolder() {
    if (m_ok) setFlag(false);
  }
  ImmutableFolder(ImmutableFolder const&) = delete;
  ImmutableFolder& operator=(ImmutableFolder const&) = delete;

  bool ok() const { return m_ok; }
  std::string const& error() const { return m_error; }

 private:
  bool setFlag(bool on) {
    int const fd = ::open(m_folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) {
      m_error = std::strerror(errno);
      return false;
    }
    int flags = 0;
    bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (done) {
      flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
      done = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    if (!done) m_error = std::strerror(errno);
    ::close(fd);
    return done;
  }

  boost::filesystem::path m_folder;
  bool m_ok = false;
  std::string m_error;
};

// A tmpfs mounted on an existing folder while it lives (mount needs root).
// options: as for mount -o, for instance "size=1m".
class TmpfsMount {
 public:
  TmpfsMount(boost::filesystem::path folder, std::string const& options)
      : m_folder(std::move(folder)) {
    m_ok = ::mount("tmpfs", m_folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
    if (!m_ok) m_error = std::strerror(errno);
  }
  ~TmpfsMount() {
    if (m_ok && ::umount(m_folder.c_str()) != 0) ::umount2(m_folder.c_str(), MNT_DETACH);
  }
  TmpfsMount(TmpfsMount const&) = delete;
  TmpfsMount& operator=(TmpfsMount const&) = delete;

  bool ok() const { return m_ok; }
  std::string const& error() const { return m_error; }

 private:
  boost::filesystem::path m_folder;
  bool m_ok = false;
  std::string m_error;
};

// Takes the log's lines while it lives (then sends them back to standard
// error), without their timestamps, and lets a test wait until a line has
// been written. The log writes each line under its mutex and ends it with
// std::endl, whose flush lands in sync().
class LogWatch {
 public:
  LogWatch() : m_stream(&m_buf) { Log::inst().toStream(m_stream); }
  ~LogWatch() { Log::inst().toStderr(); }
  LogWatch(LogWatch const&) = delete;
  LogWatch& operator=(LogWatch const&) = delete;

  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(m_buf.mutex);
    return m_buf.lines;
  }

  // Waits until line has been written count times (or limit passes); returns
  // whether it was.
  bool waitFor(std::string const& line, std::size_t count = 1,
               std::chrono::seconds limit = std::chrono::seconds(30)) {
    std::unique_lock<std::mutex> lock(m_buf.mutex);
    return m_buf.written.wait_for(lock, limit, [&] {
      return static_cast<std::size_t>(std::count(m_buf.lines.begin(), m_buf.lines.end(), line)) >=
             count;
    });
  }

 private:
  struct LineBuf : std::streambuf {
    int_type overflow(int_type c) override {
      if (c != traits_type::eof()) pending.push_back(static_cast<char>(c));
      return traits_type::not_eof(c);
    }
    std::streamsize xsputn(char const* s, std::streamsize n) override {
      pending.append(s, static_cast<std::size_t>(n));
      return n;
    }
    // Whether line starts like "2026-11-21T21:53:22.123Z ".
    static bool hasTimestamp(std::string const& line) {
      static char const form[] = "dddd-dd-ddTdd:dd:dd.dddZ ";
      if (line.size() < sizeof form - 1) return false;
      for (std::size_t i = 0; i + 1 < sizeof form; ++i) {
        bool const ok = form[i] == 'd' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0
                                       : line[i] == form[i];
        if (!ok) return false;
      }
      return true;
    }
    int sync() override {
      std::lock_guard<std::mutex> lock(mutex);
      for (std::size_t nl; (nl = pending.find('\n')) != std::string::npos;) {
        std::string const line = pending.substr(0, nl);
        pending.erase(0, nl + 1);
        std::size_t const start = sizeof "2026-11-21T21:53:22.123Z " - 1;
        lines.push_back(hasTimestamp(line) ? line.substr(start) : "(no timestamp) " + line);
      }
      written.notify_all();
      return 0;
    }

    std::string pending;  // written under the log's mutex
    std::mutex mutex;     // guards lines
    std::vector<std::string> lines;
    std::condition_variable written;
  };

  LineBuf m_buf;
  std::ostream m_stream;
};

// Sets g_LogVerbose while it lives.
class VerboseLog {
 public:
  VerboseLog() : m_was(g_LogVerbose.exchange(true)) {}
  ~VerboseLog() { g_LogVerbose = m_was; }

 private:
  bool m_was;
};

// A 64-bit hash of a byte stream, fed in pieces of any size.
class StreamHash {
 public:
  void add(char const* data, std::size_t len) {
    std::size_t i = 0;
    while (i < len && m_fill != 0) addByte(data[i++]);
    for (; i + 8 <= len; i += 8) {
      std::memcpy(&m_word, data + i, 8);  // little-endian, as addByte builds it
      mixWord();
    }
    while (i < len) addByte(data[i++]);
    m_length += len;
  }
  std::uint64_t value() const {
    StreamHash copy = *this;
    if (copy.m_fill) copy.mixWord();
    return copy.m_hash ^ (copy.m_length * 0x9e3779b97f4a7c15ULL);
  }

 private:
  void addByte(char c) {
    m_word |= std::uint64_t(static_cast<unsigned char>(c)) << (8 * m_fill);
    if (++m_fill == 8) mixWord();
  }
  void mixWord() {
    m_hash = (m_hash ^ m_word) * 0x100000001b3ULL;
    m_hash ^= m_hash >> 29;
    m_word = 0;
    m_fill = 0;
  }
  std::uint64_t m_hash = 0xcbf29ce484222325ULL;
  std::uint64_t m_word = 0;
  unsigned m_fill = 0;
  std::uint64_t m_length = 0;
};

// Deterministic bytes: block i of a file, different for every i and seed.
inline void fillBlock(std::vector<char>& block, std::uint64_t seed, std::uint64_t index) {
  std::uint64_t x = seed * 0x9e3779b97f4a7c15ULL + index * 0xbf58476d1ce4e5b9ULL + 1;
  for (std::size_t i = 0; i + 8 <= block.size(); i += 8) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    std::memcpy(&block[i], &x, 8);
  }
  for (std::size_t i = block.size() & ~std::size_t(7); i < block.size(); ++i) {
    block[i] = static_cast<char>(x >> (8 * (i & 7)));
  }
}

// A string of size deterministic bytes.
inline std::string pattern(std::size_t size, unsigned seed) {
  std::vector<char> bytes(size);
  fillBlock(bytes, seed, 0);
  return std::string(bytes.begin(), bytes.end());
}

// The size of a piece of a dropped file.
constexpr std::size_t kPiece = 1048576;
// The message a user sees when the service cannot rename a dropped file.
constexpr char kRenameFailed[] =
    "Service file operation failed. Please contact customer service for help";

// A path as the log writes it (Boost's stream operator: in double quotes).
inline std::string quoted(boost::filesystem::path const& p) { return "\"" + p.string() + "\""; }

// Writes size deterministic bytes (blocks of 1 MiB, each different) to file
// and returns their hash.
inline std::uint64_t writePatternFile(boost::filesystem::path const& file, std::uint64_t size,
                                      std::uint64_t seed) {
  std::FILE* out = std::fopen(file.c_str(), "wb");
  if (!out) throw std::runtime_error("cannot create " + file.string());
  std::vector<char> block(1 << 20);
  StreamHash hash;
  for (std::uint64_t done = 0, index = 0; done < size; ++index) {
    fillBlock(block, seed, index);
    std::size_t const n = static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), size - done));
    hash.add(block.data(), n);
    if (std::fwrite(block.data(), 1, n, out) != n) {
      std::fclose(out);
      throw std::runtime_error("cannot write " + file.string());
    }
    done += n;
  }
  if (std::fclose(out) != 0) throw std::runtime_error("cannot write " + file.string());
  return hash.value();
}

inline std::uint64_t hashFile(boost::filesystem::path const& file) {
  std::FILE* in = std::fopen(file.c_str(), "rb");
  if (!in) throw std::runtime_error("cannot open " + file.string());
  std::vector<char> block(1 << 20);
  StreamHash hash;
  for (std::size_t n; (n = std::fread(block.data(), 1, block.size(), in)) > 0;) hash.add(block.data(), n);
  std::fclose(in);
  return hash.value();
}

}  // namespace qxtest

#endif  // QX_TESTS_DROPTESTUTIL_H
