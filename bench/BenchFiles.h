// What the benchmarks do with their files and their figures: the source
// written once (deterministic bytes, on disk before timing), read through
// into the page cache, copies compared, and runs summed up. Failures throw
// std::runtime_error with the path and the system's reason.
//
// Any thread; nothing here holds state.
#ifndef QX_BENCH_BENCHFILES_H
#define QX_BENCH_BENCHFILES_H

#include "bench/BenchBytes.h"

#include <boost/filesystem/path.hpp>

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace qxbench {

constexpr std::size_t kFileBlock = 1 << 20;

inline std::string errnoText(std::string const& what) { return what + ": " + std::strerror(errno); }

inline double seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

inline double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  std::size_t const n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Each run's figure, in format, separated by spaces.
inline std::string runsText(std::vector<double> const& v, char const* format = "%.3f") {
  std::string text;
  char buf[32];
  for (double x : v) {
    std::snprintf(buf, sizeof buf, format, x);
    text += (text.empty() ? "" : " ") + std::string(buf);
  }
  return text;
}

// Writes size bytes of fillBlock's blocks (seed * 1000003 + block index) to
// file, and has them on disk before it returns, so that their write-back
// does not slow the runs that follow.
inline void writeSource(boost::filesystem::path const& file, std::uint64_t size, std::uint64_t seed = 0,
                        mode_t mode = 0644) {
  int const fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error(errnoText("create " + file.string()));
  std::vector<char> block(kFileBlock);
  for (std::uint64_t done = 0, index = 0; done < size; ++index) {
    fillBlock(block, seed * 1000003 + index);
    std::size_t const n = static_cast<std::size_t>(std::min<std::uint64_t>(kFileBlock, size - done));
    for (std::size_t written = 0; written < n;) {
      ssize_t const w = ::write(fd, block.data() + written, n - written);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) {
        std::string const why = w < 0 ? errnoText("write " + file.string()) : "write " + file.string() + ": nothing written";
        ::close(fd);
        throw std::runtime_error(why);
      }
      written += static_cast<std::size_t>(w);
    }
    done += n;
  }
  if (::fsync(fd) != 0) {
    std::string const why = errnoText("fsync " + file.string());
    ::close(fd);
    throw std::runtime_error(why);
  }
  ::close(fd);
}

// Reads the whole file, to have it in the page cache.
inline void readThrough(boost::filesystem::path const& file) {
  int const fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error(errnoText("open " + file.string()));
  std::vector<char> block(kFileBlock);
  while (::read(fd, block.data(), block.size()) > 0) {
  }
  ::close(fd);
}

// Whether both files can be read and hold the same bytes.
inline bool sameContent(boost::filesystem::path const& a, boost::filesystem::path const& b) {
  std::ifstream x(a.string(), std::ios::binary), y(b.string(), std::ios::binary);
  if (!x || !y) return false;
  std::vector<char> bx(kFileBlock), by(kFileBlock);
  for (;;) {
    x.read(bx.data(), static_cast<std::streamsize>(bx.size()));
    y.read(by.data(), static_cast<std::streamsize>(by.size()));
    if (x.gcount() != y.gcount()) return false;
    if (x.gcount() == 0) return true;
    if (std::memcmp(bx.data(), by.data(), static_cast<std::size_t>(x.gcount())) != 0) return false;
  }
}

// The command line of the drop benchmarks:
//   PROGRAM [--size=BYTES] [--runs=N] [--warmups=N] [--dir=FOLDER] [--check-targets]
// The size defaults to 1 GiB, or QX_BENCH_DROP_SIZE. A wrong command line
// is a usage line and exit status 2.
struct DropOptions {
  std::uint64_t size = std::uint64_t(1) << 30;
  int runs = 5;
  int warmups = 1;  // untimed rounds first
  boost::filesystem::path dir;
  bool checkTargets = false;
};

inline DropOptions parseDropOptions(int argc, char** argv, char const* program) {
  DropOptions o;
  if (char const* env = std::getenv("QX_BENCH_DROP_SIZE")) o.size = std::strtoull(env, nullptr, 10);
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    auto value = [&](char const* key) -> char const* {
      std::size_t const len = std::strlen(key);
      return arg.compare(0, len, key) == 0 ? argv[i] + len : nullptr;
    };
    if (char const* v = value("--size=")) {
      o.size = std::strtoull(v, nullptr, 10);
    } else if (char const* v = value("--runs=")) {
      o.runs = std::atoi(v);
    } else if (char const* v = value("--warmups=")) {
      o.warmups = std::atoi(v);
    } else if (char const* v = value("--dir=")) {
      o.dir = v;
    } else if (arg == "--check-targets") {
      o.checkTargets = true;
    } else {
      std::fprintf(stderr, "usage: %s [--size=BYTES] [--runs=N] [--warmups=N] [--dir=FOLDER] [--check-targets]\n",
                   program);
      std::exit(2);
    }
  }
  if (o.size == 0 || o.runs < 1 || o.warmups < 0) {
    std::fprintf(stderr, "%s: the size and the number of runs must be positive\n", program);
    std::exit(2);
  }
  return o;
}

}  // namespace qxbench

#endif  // QX_BENCH_BENCHFILES_H
