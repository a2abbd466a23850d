#pragma once

#include <thread>

// The process of who includes this has had a second thread, as every agent has one (the client's):
// from then on std::shared_ptr counts, and a mutex of the C library locks, by atomic changes, as
// ours do from the start.
namespace bench {

[[maybe_unused]] inline const bool hadSecondThread = [] {
  std::thread([] {}).join();
  return true;
}();

}  // namespace bench
