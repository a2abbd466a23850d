#pragma once

#include <Twine/Point.h>

// The trace points of the agent's kit: the life of each tracked command, for tools that draw it.
namespace Norv::AgentTrace {

Lumo::TraceHandle& _defaultTraceHandle();  // facility "NorvAgent"

extern U8 levelMap[10];

inline constexpr Twine::Module module{&_defaultTraceHandle, levelMap, "Ledger.cpp"};

using Twine::Sinks;
inline constexpr Twine::Point announced{
    &module, 1, "announced", 6, Sinks::both, "announced seq=%s type=%s queue=%s depth=%s"};
inline constexpr Twine::Point ended{
    &module, 2, "ended", 6, Sinks::both, "ended seq=%s type=%s queue=%s outcome=%s depth=%s"};

}  // namespace Norv::AgentTrace
