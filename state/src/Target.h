#pragma once

#include <Norv/State/Plan.h>

namespace Norv::State {

// What the switch shall be: the wanted switch, and of the live one what that does not speak of.
Switch targetOf(const LiveSwitch& live, const Switch& wanted, const PlanOptions& options);

using Hooks = std::map<HookPoint, std::optional<Any>>;
// The hook of the same point, under the same name or under none; the end when there is none.
Hooks::const_iterator matching(const Hooks& hooks, const HookPoint& point);
inline bool matches(const Hooks& hooks, const HookPoint& point) {
  return matching(hooks, point) != hooks.end();
}

}  // namespace Norv::State
