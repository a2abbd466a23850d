#pragma once

#include <Norv/Agent/Outcome.h>
#include <Norv/State/Execution.h>

namespace Norvctl {

// What a command's outcome is to the plan that it belongs to.
constexpr Norv::State::StepEnd stepEndOf(Norv::Agent::Outcome outcome) {
  using Norv::Agent::Outcome;
  using Norv::State::StepEnd;
  switch (outcome) {
    case Outcome::ok:
      return StepEnd::done;
    case Outcome::refused:
      return StepEnd::refused;
    case Outcome::dropped:
      return StepEnd::dropped;
    default:
      return StepEnd::unclear;
  }
}

}  // namespace Norvctl
