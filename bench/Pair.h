#pragma once

#include <cstdio>
#include <cstdlib>
#include <utility>

// What the programs that take turns with their peers themselves have in common.
namespace bench {

// One turn of a row of the table: what it cost here and at the peer, in the row's unit.
inline void pair(const char* key, double here, double peer) {
  std::printf("pair %s %.6g %.6g\n", key, here, peer);
}

// What both measure in a turn, here first; every second turn the peer does so before.
template <class Here, class Peer>
auto inTurn(int turn, Here here, Peer peer) {
  if (turn % 2 == 0) {
    auto ours = here();
    return std::pair(std::move(ours), peer());
  }
  auto theirs = peer();
  return std::pair(here(), std::move(theirs));
}

// Fewer and smaller turns are wanted.
inline bool quick() {
  return std::getenv("BENCH_QUICK") != nullptr;
}

}  // namespace bench
