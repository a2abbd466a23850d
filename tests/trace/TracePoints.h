#pragma once

#include <numeric>

#include <Twine/Twine.h>

// The trace points that the tests use, in two modules.
namespace Sample {

Lumo::TraceHandle& handle();
Lumo::TraceHandle& otherHandle();

inline U8 levelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
inline U8 otherLevelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

inline constexpr Twine::Module module{&handle, levelMap, "Sample.lumo"};
inline constexpr Twine::Module otherModule{&otherHandle, otherLevelMap, "Other.cpp"};
using Twine::Sinks;

inline constexpr Twine::Point plain{&module, 16, "handleBatch", 5, Sinks::both, "Entry"};
inline constexpr Twine::Point placed{
    &module, 102, "processResponse", 0, Sinks::both, "Failure: error_code: %s error_message: %s"};
// As in docs/skein-format.md.
inline constexpr Twine::Point exampleOfTheDocument{
    &module, 102, "processResponse", 0, Sinks::both, "Failure: error_code: %s error_message: %s"};
inline constexpr Twine::Point bracketed{&module, 125, "connect", 5, Sinks::both, "To (%s)"};
inline constexpr Twine::Point appended{&module, 75, "handle", 5, Sinks::both, "void handle(Name)",
                                       1};
inline constexpr Twine::Point appendedTwo{&module, 76, "handle", 5, Sinks::both, "handle", 2};
inline constexpr Twine::Point afterBlank{&module, 82, "handle", 5, Sinks::both, "Creating for ", 1};
inline constexpr Twine::Point four{&module, 9, "four", 9, Sinks::both, "%s,%s,%s,%s"};
inline constexpr Twine::Point numbered{&module, 7, "count", 3, Sinks::both, "n=%s"};
inline constexpr Twine::Point pair{&module, 8, "pair", 3, Sinks::both, "a=%s b=%s"};
inline constexpr Twine::Point textOnly{&module, 77, "work", 5, Sinks::text, "Nothing to do"};
inline constexpr Twine::Point textSending{&module, 137, "send", 8, Sinks::text, "Sending ", 1};
inline constexpr Twine::Point other{&otherModule, 3, "other", 5, Sinks::both, "other %s"};

// As the agent's kit writes them.
Lumo::TraceHandle& agentHandle();
inline U8 agentLevelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
inline constexpr Twine::Module agentModule{&agentHandle, agentLevelMap, "Agent.cpp"};
inline constexpr Twine::Point announced{
    &agentModule, 1, "announce", 6, Sinks::both, "announced seq=%s type=%s queue=%s depth=%s"};
inline constexpr Twine::Point ended{
    &agentModule, 2, "end", 6, Sinks::both, "ended seq=%s type=%s queue=%s outcome=%s depth=%s"};

}  // namespace Sample
