#pragma once

#include <cstdio>
#include <cstdlib>

// What the programs that take turns with their peers themselves have in common.
namespace bench {

// One turn of a row of the table: what it cost here and at the peer, in the row's unit.
inline void pair(const char* key, double here, double peer) {
  std::printf("pair %s %.6g %.6g\n", key, here, peer);
}

// Fewer and smaller turns are wanted.
inline bool quick() {
  return std::getenv("BENCH_QUICK") != nullptr;
}

}  // namespace bench
