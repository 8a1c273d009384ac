// Bytes for the benchmarks' files: deterministic, different in every block,
// so that no layer can shortcut them (compression, deduplication).
#ifndef QX_BENCH_BENCHBYTES_H
#define QX_BENCH_BENCHBYTES_H

#include <cstdint>
#include <cstring>
#include <vector>

namespace qxbench {

// Fills block from seed (xorshift64): the same seed gives the same bytes.
inline void fillBlock(std::vector<char>& block, std::uint64_t seed) {
  std::uint64_t x = seed * 0x9e3779b97f4a7c15ULL + 0x243f6a8885a308d3ULL;
  for (std::size_t i = 0; i + 8 <= block.size(); i += 8) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    std::memcpy(&block[i], &x, 8);
  }
}

}  // namespace qxbench

#endif  // QX_BENCH_BENCHBYTES_H
