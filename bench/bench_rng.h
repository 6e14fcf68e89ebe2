// The benchmarks' random numbers: splitmix64, so that a corpus built from a
// seed is the same on every platform and library, unlike the standard
// distributions, and figures from two machines describe the same mail.
#pragma once

#include <cstddef>
#include <cstdint>

struct BenchRng {
  uint64_t state;
  uint64_t next() {
    uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  size_t below(size_t n) { return static_cast<size_t>(next() % n); }
  bool chance(int percent) { return below(100) < static_cast<size_t>(percent); }
};
