#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>

namespace support {

// For the body of a death test: what an aborting process says of itself, behind the assertion's
// text.
inline void atAbort(std::function<std::string()> state) {
  static std::function<std::string()> kept;
  kept = std::move(state);
  std::signal(SIGABRT, [](int) { std::fputs((kept() + "\n").c_str(), stderr); });
}

// How a death test expects a process to end that an assertion stops.
inline const testing::KilledBySignal aborted(SIGABRT);

inline const char* const readsPreserved = "!Lumo::FwkEntityReadsPreserve::anyActive\\( this \\)";

}  // namespace support
