#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <Norv/State/Plan.h>

// A plan under way: which step may go now, and what has become of each object. It sends nothing
// itself; who does tells it how each step ended. Not thread safe.
namespace Norv::State {

enum class StepEnd {
  done,
  refused,  // the daemon said why
  unclear,  // failed or undecodable: what the daemon did is not known
  dropped,  // never sent
};

class Execution {
 public:
  // `plan` must stay. `held`: changes, by their index, that wait for something outside the plan:
  // they are not tried, nor what needs them, nor a pause around nothing else. What is to be made
  // anew, or moved, is left as it is where that could not be done whole.
  explicit Execution(const Plan& plan, const std::set<std::size_t>& held = {});

  const Plan& plan() const { return plan_; }
  // The next step whose turn it is, in the order of the plan; none while others have to end first,
  // or all are under way or ended.
  std::optional<std::size_t> next();
  // `text`: the daemon's, or what is known.
  void ended(std::size_t step, StepEnd how, const std::string& text = "");
  bool finished() const { return open_ == 0; }
  // Whether the step is still to go, if all goes well.
  bool mayGo(std::size_t step) const;
  // How its command ended; none: it was not sent, or has no answer yet.
  std::optional<StepEnd> end(std::size_t step) const;
  // Commands that go if all goes well.
  std::size_t commands() const { return commands_; }

  struct State {
    enum class Kind { done, refused, unclear, notTried };
    Kind kind = Kind::done;
    std::string text;     // of a refusal or a failure
    std::string because;  // not tried: the object that it needs, where that is another
  };
  // Of each change, in the order of the plan.
  std::vector<State> states() const;
  // Commands that ended in each way.
  std::size_t count(StepEnd how) const { return counts_[static_cast<std::size_t>(how)]; }

 private:
  enum class Phase { waiting, ready, underWay, succeeded, failed, skipped };

  void findStuck(std::set<std::size_t> held);
  void findIdle(const std::set<std::size_t>& held);
  void settle(std::size_t step, Phase phase);
  bool release(std::size_t step);

  const Plan& plan_;
  std::vector<Phase> phases_;
  std::vector<std::size_t> missing_;  // steps that have to end before
  std::vector<std::vector<std::size_t>> followers_;
  std::vector<bool> idle_;            // held, or a pause around nothing that goes
  std::vector<bool> stuck_;           // known from the beginning not to go
  std::vector<bool> doomed_;          // a step that it needs did not succeed
  std::vector<std::size_t> culprit_;  // which
  // Changes that wait whole for another one, and a step of that.
  std::map<std::size_t, std::size_t> waitsFor_;
  std::vector<std::string> texts_;
  std::vector<StepEnd> ends_;
  std::set<std::size_t> ready_;
  std::size_t open_;
  std::size_t commands_ = 0;
  std::size_t counts_[4] = {};
};

}  // namespace Norv::State
