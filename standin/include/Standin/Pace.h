#pragma once

#include <cstdint>
#include <string>

namespace Standin {

// How slow a daemon is, as a loaded one: how long each answer takes, and how many there are.
struct Pace {
  std::uint32_t latencyMs = 0;     // Milliseconds that an answer takes at least,
  std::uint32_t maxLatencyMs = 0;  // and at most; below `latencyMs`: as that.
  double rate = 0;                 // Answers per second; 0 for no limit.

  // Sets the latency from "5" or "5..20". Throws std::invalid_argument with what would be right.
  void latencyIs(const std::string& text);
  // Sets the rate, 0 or from 0.001 to a million. Throws std::invalid_argument otherwise.
  void rateIs(double perSecond);
};

}  // namespace Standin
