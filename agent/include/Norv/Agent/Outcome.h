#pragma once

#include <array>
#include <cstddef>

namespace Norv::Agent {

// How a command ended. Every command ends in exactly one of these.
enum class Outcome {
  ok,           // the daemon did it
  refused,      // the daemon answered with an error in the reply
  failed,       // the RPC failed: the error flag rose on it
  undecodable,  // the reply did not decode, and the client passed it over in silence
  dropped,      // never sent
};
inline constexpr std::size_t outcomes = 5;

constexpr const char* outcomeName(Outcome outcome) {
  constexpr std::array<const char*, outcomes> names{"ok", "refused", "failed", "undecodable",
                                                    "dropped"};
  return names[static_cast<std::size_t>(outcome)];
}

}  // namespace Norv::Agent
