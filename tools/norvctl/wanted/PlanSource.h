#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <Norv/State/Execution.h>

#include "../run/Steps.h"

namespace Norvctl {

// The steps of a plan for a session, as their turn comes: each when what it needs has succeeded, in
// the queue of its section, announced when nothing more of it can go. Further plans may follow.
class PlanSource : public StepSource {
 public:
  // `plan` must stay. `next` is asked, on the session's reading thread, when a plan is through, for
  // one to carry out then; null ends the session.
  using Following = std::function<const Norv::State::Plan*()>;
  PlanSource(const Norv::State::Plan& plan, Following following);

  std::optional<Step> next() override;
  bool bounded() const override { return false; }

  // How the step of this line ended. Any thread.
  void ended(std::size_t line, Norv::State::StepEnd how, const std::string& text);
  // Nothing more goes. Any thread.
  void stop();

  // Of the plans so far, the first one first; once the session has ended.
  const Norv::State::Execution& execution(std::size_t plan) const {
    return *stages_[plan].execution;
  }
  std::size_t plans() const { return stages_.size(); }

 private:
  struct Stage {
    const Norv::State::Plan* plan;
    std::unique_ptr<Norv::State::Execution> execution;
  };
  Step announcement();
  Step command(std::size_t step);

  const Following following_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopped_ = false;
  std::vector<Stage> stages_;
  std::vector<std::pair<std::size_t, std::size_t>> lines_;  // plan and step
  std::optional<std::size_t> held_;                         // goes after an announcement
  std::string open_;                                        // the queue with unannounced commands
  std::size_t unannounced_ = 0;
};

}  // namespace Norvctl
