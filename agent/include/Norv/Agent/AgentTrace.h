#pragma once

#include <Twine/Point.h>

// The trace points of the agent's kit: the life of each tracked command, for tools that draw it.
namespace Norv::AgentTrace {

Lumo::TraceHandle& _defaultTraceHandle();  // facility "NorvAgent"

extern U8 levelMap[10];
// Maps the trace levels 0 to 9 of the kit to the levels its ring-buffer records are logged under;
// returns true. Any thread.
bool _mapTwineToSkein(U8 l0, U8 l1, U8 l2, U8 l3, U8 l4, U8 l5, U8 l6, U8 l7, U8 l8, U8 l9);

inline constexpr Twine::Module module{&_defaultTraceHandle, levelMap, "Ledger.cpp"};

using Twine::Sinks;
inline constexpr Twine::Point announced{
    &module, 1, "announced", 6, Sinks::both, "announced seq=%s type=%s queue=%s depth=%s"};
inline constexpr Twine::Point ended{
    &module, 2, "ended", 6, Sinks::both, "ended seq=%s type=%s queue=%s outcome=%s depth=%s"};

}  // namespace Norv::AgentTrace
