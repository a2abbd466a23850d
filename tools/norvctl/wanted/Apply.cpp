// The verb apply.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <set>

#include <bess/pb/service.pb.h>

#include "../Verb.h"
#include "../run/RunOptions.h"
#include "../text/ProgressBar.h"
#include "../text/Terminal.h"
#include "../text/Text.h"
#include "PlanSource.h"
#include "StepEnds.h"
#include "Wanted.h"

namespace Norvctl {

namespace {

using Norv::Agent::CommandReport;
using Norv::Agent::Outcome;
using Norv::State::Execution;
using Norv::State::LiveSwitch;
using Norv::State::Object;
using Norv::State::Plan;
using Norv::State::Record;

struct ApplyArguments : WantedOptions {
  SessionOptions session;
  bool yes = false;
  bool dryRun = false;
  bool rollback = false;
  bool allowMassDelete = false;
};

// Passes ends on to the plan, and shows how far it is.
class Progress : public SessionListener {
 public:
  Progress(PlanSource& source, const Target& target, std::size_t total,
           const ApplyArguments& arguments)
      : source_(source),
        noAnswer_(target.host(), target.port(), arguments.json),
        bar_(isatty(STDERR_FILENO) && !arguments.json && !arguments.quiet, total) {}

  void ended(const CommandReport& report, const Entry& entry) override {
    if (report.outcome != Outcome::dropped) noAnswer_.answered();
    bar_.step();
    const std::string text = report.outcome == Outcome::refused
                                 ? refusalText(report.errorCode, report.errorText)
                                 : report.errorText;
    source_.ended(entry.line, stepEndOf(report.outcome), text);
  }
  bool told() override { return true; }
  bool wantsUnread() const override { return false; }
  void progress(const Norv::Agent::Kit& kit) override {
    const auto oldest = kit.ledger()->oldestOpen();
    const auto usual = std::chrono::seconds(5);
    if (oldest && !kit.stopped() && kit.ledger()->now() - oldest->started > usual) {
      bar_.clear();
      noAnswer_.waiting();
    }
    bar_.show();
  }
  void clear() { bar_.clear(); }

 private:
  PlanSource& source_;
  NoAnswer noAnswer_;
  ProgressBar bar_;
};

class Apply {
 public:
  explicit Apply(const ApplyArguments& arguments)
      : arguments_(arguments),
        target_(arguments.target),
        known_(arguments, target_,
               arguments.dryRun ? KnownSwitch::Access::read : KnownSwitch::Access::write) {}

  int run() {
    LiveSwitch live = known_.read();
    const auto document = usableDocument(arguments_, &live);
    if (!document) return badInput;
    wanted_ = document->wanted;
    plan_ = makePlan(live, wanted_, arguments_.plan);
    show();
    while (!arguments_.dryRun && !plan_.empty() && asks()) {
      // Nobody else has to wait for a person.
      known_.letGo();
      if (!agreed()) return badInput;
      known_.hold();
      live = known_.read();
      const std::string shown = planText(plan_, false);
      plan_ = makePlan(live, wanted_, arguments_.plan);
      if (planText(plan_, false) == shown) break;
      std::cerr << "norvctl: the switch has changed meanwhile; this is what is to do now\n";
      show();
    }
    if (plan_.empty()) {
      if (arguments_.json) tellJson({});
      return allOk;
    }
    if (arguments_.dryRun) {
      if (arguments_.json) print(planCommands(plan_));
      return somethingToDo;
    }
    if (!asks() && !agreed()) return badInput;
    known_.record().begin(Execution(plan_), wanted_);
    known_.saveRecord();
    carryOut(live);
  }

 private:
  bool terminal() const { return isatty(STDIN_FILENO) && isatty(STDERR_FILENO); }

  static std::string answer(const std::string& question) {
    std::cerr << question << std::flush;
    std::string line;
    std::getline(std::cin, line);
    return line;
  }

  void show() const {
    if (arguments_.json || arguments_.quiet) return;
    print(planText(plan_, coloursAt(STDOUT_FILENO)));
    flushOutput();
  }

  bool massDeletion() const {
    const bool empties = arguments_.plan.prune && wanted_.objects() == 0 && plan_.deletions != 0;
    return (plan_.deletesMuch() || empties) && !arguments_.allowMassDelete;
  }

  bool asks() const { return terminal() && (massDeletion() || !arguments_.yes); }

  bool agreed() const {
    if (massDeletion()) {
      const std::string what = "this deletes " + grouped(plan_.deletions) + " of " +
                               grouped(plan_.liveObjects) + " objects";
      if (!terminal()) {
        std::cerr << "norvctl: " << what << "; --allow-mass-delete lets it\n";
        return false;
      }
      const std::string typed = answer("norvctl: " + what + "; type their number to go on: ");
      if (typed == std::to_string(plan_.deletions) || typed == grouped(plan_.deletions))
        return true;
      std::cerr << "norvctl: nothing was changed\n";
      return false;
    }
    if (arguments_.yes) return true;
    if (!terminal()) {
      std::cerr << "norvctl: nobody to ask here; --yes goes on without\n";
      return false;
    }
    const std::string line = answer("Carry it out? [y/N] ");
    if (line == "y" || line == "Y" || line == "yes") return true;
    std::cerr << "norvctl: nothing was changed\n";
    return false;
  }

  // A plan on its way. It stays to the end of the process, as the session does.
  struct Carrying {
    Carrying(const Plan& plan, const Target& target, const ApplyArguments& arguments)
        : source(plan, [] { return nullptr; }),
          progress(source, target, plan.commands(), arguments) {}
    PlanSource source;
    Progress progress;
    std::unique_ptr<Session> session;
  };

  // Every change by a session; then the switch is read again, and says what has become of it.
  [[noreturn]] void carryOut(const LiveSwitch& before) {
    endOnSignals();
    std::vector<Execution::State> states;
    const SessionEnd end = send(plan_, states);
    if (arguments_.rollback && !allDone(states)) rollBack(before, end, states);
    leave(conclude(std::move(states), end));
  }

  SessionEnd send(const Plan& plan, std::vector<Execution::State>& states) {
    const auto& carrying =
        carryings_.emplace_back(std::make_unique<Carrying>(plan, target_, arguments_));
    SessionOptions options = arguments_.session;
    options.host = target_.host();
    options.port = target_.port();
    options.timeout = durationOf(arguments_.timeoutSeconds);
    options.stream = true;
    carrying->session = std::make_unique<Session>(options, carrying->source, carrying->progress);
    const SessionEnd end = carrying->session->run();
    carrying->source.stop();
    carrying->progress.clear();
    states = executionOf(*carrying).states();
    return end;
  }

  static const Execution& executionOf(const Carrying& carrying) {
    return carrying.source.execution(0);
  }

  // Returns to the state before, in a session of its own: what failed has ended the first.
  void rollBack(const LiveSwitch& before, SessionEnd end,
                const std::vector<Execution::State>& states) {
    if (end == SessionEnd::interrupted) {
      notRolledBack_ = "interrupted";
      return;
    }
    try {
      LiveSwitch bare = known_.readBare();
      known_.record().end(executionOf(*carryings_.front()), states, wanted_, bare);
      known_.record().complement(bare);
      former_ = before;
      former_.workersStated = true;
      rollback_ = makePlan(bare, former_, {.prune = true});
      known_.record().begin(Execution(*rollback_), former_);
      known_.saveRecord();
      std::vector<Execution::State> back;
      if (send(*rollback_, back) == SessionEnd::interrupted) notRolledBack_ = "interrupted";
      LiveSwitch after = known_.readBare();
      const Execution& execution = executionOf(*carryings_.back());
      back = Record::settled(execution, after, former_, {.prune = true});
      known_.record().end(execution, back, former_, after);
      known_.saveRecord();
      known_.record().complement(after);
      const Plan rest = makePlan(after, former_, {.prune = true});
      if (!rest.empty() && notRolledBack_.empty()) notRolledBack_ = whyNotBack(back, rest);
    } catch (const std::exception& error) {
      notRolledBack_ = error.what();
    }
  }

  // The first that did not come back, with the daemon's word where there is one.
  std::string whyNotBack(const std::vector<Execution::State>& states, const Plan& rest) const {
    for (std::size_t i = 0; i < states.size(); ++i) {
      if (states[i].text.empty()) continue;
      return text(rollback_->changes[i].object) + ": " + states[i].text;
    }
    return text(rest.changes.front().object) + " is not as it was";
  }

  static bool allDone(const std::vector<Execution::State>& states) {
    return std::all_of(states.begin(), states.end(), [](const Execution::State& state) {
      return state.kind == Execution::State::Kind::done;
    });
  }

  int conclude(std::vector<Execution::State> states, SessionEnd end) {
    std::string reading;
    std::optional<Plan> rest;
    try {
      LiveSwitch bare = known_.readBare();
      letRun(bare);
      LiveSwitch after = bare;
      const Execution& execution = executionOf(*carryings_.front());
      states = Record::settled(execution, after, wanted_, arguments_.plan);
      if (!rollback_) known_.record().end(execution, states, wanted_, bare);
      known_.saveRecord();
      known_.record().complement(after);
      rest = makePlan(after, wanted_, arguments_.plan);
      for (const Object& object : after.doubtful) {
        if (object.kind == Norv::State::Kind::worker) stillPaused_.emplace(object.name, "");
      }
    } catch (const std::exception& error) {
      reading = error.what();
      for (const std::int64_t id : pausedMeanwhile()) mayStand_.insert(std::to_string(id));
    }
    if (arguments_.json) {
      tellJson(states);
    } else {
      tell(states, rest, end, reading);
    }
    return statusOf(states, rest, end);
  }

  // Workers that were to stand still only while something else was done.
  std::set<std::int64_t> pausedMeanwhile() const {
    std::set<std::int64_t> ids;
    const auto collect = [&](const Plan& plan) {
      for (const auto& step : plan.steps) {
        const bool meanwhile = step.change == Norv::State::Step::none && step.request;
        if (!meanwhile || step.type != Norv::pauseWorker) continue;
        ids.insert(static_cast<const bess::pb::PauseWorkerRequest&>(*step.request).wid());
      }
    };
    collect(plan_);
    if (rollback_) collect(*rollback_);
    return ids;
  }

  // Those that stand still yet, as what was to wake them failed or was never sent, run again;
  // beside the session, which sends nothing any more.
  void letRun(LiveSwitch& now) {
    for (const std::int64_t id : pausedMeanwhile()) {
      const auto worker = now.workers.find(id);
      if (worker == now.workers.end() || worker->second.running.value_or(true)) continue;
      const std::string why = known_.resume(id);
      if (why.empty()) {
        worker->second.running = true;
        resumed_.insert(std::to_string(id));
      } else {
        stillPaused_[std::to_string(id)] = why;
      }
    }
  }

  static const char* stateName(Execution::State::Kind kind) {
    switch (kind) {
      case Execution::State::Kind::done:
        return "done";
      case Execution::State::Kind::refused:
        return "refused";
      case Execution::State::Kind::unclear:
        return "unclear";
      case Execution::State::Kind::notTried:
        return "not tried";
    }
    return "";
  }

  void tell(const std::vector<Execution::State>& states, const std::optional<Plan>& rest,
            SessionEnd end, const std::string& reading) const {
    const Colours colours(coloursAt(STDOUT_FILENO));
    std::size_t done = 0;
    for (std::size_t i = 0; i < states.size(); ++i) {
      const Execution::State& state = states[i];
      if (state.kind == Execution::State::Kind::done) {
        ++done;
        continue;
      }
      print(colours.bad() + std::string(stateName(state.kind)) + colours.end() + "  " +
            escaped(text(plan_.changes[i].object)) +
            (state.because.empty() ? "" : "  because of " + escaped(state.because)) +
            (state.text.empty() ? "" : "  " + escaped(state.text)) + "\n");
    }
    tellOfWorkers(colours);
    print(grouped(done) + " of " + grouped(states.size()) + " changes done");
    if (end == SessionEnd::interrupted) print(", interrupted");
    if (end == SessionEnd::timedOut) print(", the time ran out");
    if (end == SessionEnd::stoppedByFailure) print(", stopped after a failure");
    if (rolledBack()) print("; what was before is back");
    if (!notRolledBack_.empty()) print("; not rolled back: " + escaped(notRolledBack_));
    if (!reading.empty()) {
      print("; the switch cannot be read again\n");
      std::cerr << "norvctl: " << reading << '\n';
    } else if (rest->empty()) {
      print(". The switch is as wanted.\n");
    } else {
      print(". The switch is not as wanted; `norvctl plan` shows the rest.\n");
    }
  }

  void tellOfWorkers(const Colours& colours) const {
    const std::string shortly = "  as what it stood still for was cut short";
    const auto wake = [&](const std::string& id) {
      return "`norvctl call --host " + target_.host() + " --port " +
             std::to_string(target_.port()) + " resumeWorker '{\"wid\":" + id + "}'` lets it run\n";
    };
    for (const std::string& id : resumed_) {
      print(colours.warning() + std::string("resumed") + colours.end() + "  worker " + id +
            shortly + "\n");
    }
    for (const auto& [id, why] : stillPaused_) {
      print(colours.bad() + std::string("paused") + colours.end() + "  worker " + id + shortly +
            (why.empty() ? "" : ", and cannot be resumed: " + why) + "; " + wake(id));
    }
    for (const std::string& id : mayStand_) {
      print(colours.bad() + std::string("unclear") + colours.end() + "  worker " + id +
            "  may stand still; " + wake(id));
    }
  }

  void tellJson(const std::vector<Execution::State>& states) const {
    for (std::size_t i = 0; i < states.size(); ++i) {
      static constexpr const char* actions[] = {"create", "change", "recreate", "delete"};
      const auto& change = plan_.changes[i];
      std::string line = "{\"object\":" + jsonText(text(change.object)) + ",\"action\":\"" +
                         actions[static_cast<int>(change.action)] + "\",\"state\":\"" +
                         stateName(states[i].kind) + "\"";
      if (!states[i].text.empty()) line += ",\"text\":" + jsonText(states[i].text);
      if (!states[i].because.empty()) line += ",\"because\":" + jsonText(states[i].because);
      print(line + "}\n");
    }
    const auto done = std::count_if(
        states.begin(), states.end(),
        [](const Execution::State& state) { return state.kind == Execution::State::Kind::done; });
    std::string paused;
    for (const auto& [id, why] : stillPaused_) paused += (paused.empty() ? "" : ",") + id;
    for (const std::string& id : mayStand_) paused += (paused.empty() ? "" : ",") + id;
    print("{\"summary\":{\"changes\":" + std::to_string(states.size()) + ",\"done\":" +
          std::to_string(done) + ",\"commands\":" + std::to_string(plan_.commands()) +
          ",\"rolled_back\":" + (rolledBack() ? "true" : "false") + ",\"still_paused\":[" + paused +
          "]}}\n");
  }

  int statusOf(const std::vector<Execution::State>& states, const std::optional<Plan>& rest,
               SessionEnd end) const {
    if (end == SessionEnd::interrupted) return 128 + endingSignal();
    if (!rest || end != SessionEnd::complete) return lost;
    return allDone(states) && rest->empty() ? allOk : refused;
  }

  bool rolledBack() const { return rollback_ && notRolledBack_.empty(); }

  const ApplyArguments& arguments_;
  const Target target_;
  KnownSwitch known_;
  Norv::State::Switch wanted_;
  Plan plan_;
  std::optional<Plan> rollback_;
  Norv::State::Switch former_;
  std::string notRolledBack_;
  std::vector<std::unique_ptr<Carrying>> carryings_;
  // Workers after what was cut short, by their numbers.
  std::set<std::string> resumed_;
  std::map<std::string, std::string> stillPaused_;  // and why they cannot be resumed
  std::set<std::string> mayStand_;                  // the switch cannot be read
};

int apply(const ApplyArguments& arguments) {
  if (const std::string reason = simulationReason(); !reason.empty()) {
    std::cerr << "norvctl: " << reason << '\n';
    return badInput;
  }
  return Apply(arguments).run();
}

Action defineApply(CLI::App& command) {
  const auto arguments = std::make_shared<ApplyArguments>();
  addWanted(command, *arguments);
  addTarget(command, arguments->target);
  addTimeout(command, arguments->timeoutSeconds, "give up after so many SECONDS; 0 is for ever");
  command.add_flag("--yes", arguments->yes, "do not ask");
  command.add_flag("--dry-run", arguments->dryRun, "show the plan and end there");
  command.add_flag("--rollback", arguments->rollback,
                   "when not all can be done, return to what was before");
  command.add_flag(
      "--allow-mass-delete", arguments->allowMassDelete,
      "delete more than half of a switch, or all of it, without asking for the number");
  command.add_flag("--json", arguments->json, "one JSON object per change, and a summary object");
  command.add_flag("--quiet", arguments->quiet, "only what was not done, and the end");
  command
      .add_option("--flight-recorder", arguments->session.flightRecorder,
                  "keep the last trace records in this FILE, and freeze them when an RPC fails")
      ->type_name("FILE");
  addStateDir(command, *arguments);
  return [arguments] { return apply(*arguments); };
}

}  // namespace

Verb applyVerb() {
  return {
      "apply",
      "make the switch as wanted",
      {"Shows the plan, asks on a terminal unless --yes, sends its commands through named "
       "queues, connection manager and client, reads the switch again and says whether it is as "
       "wanted. A refusal stops what needs the refused object and nothing else; at the end each "
       "change is done, refused, unclear or not tried. What is interrupted goes on with the "
       "next apply."},
      {{"norvctl apply --standin --yes examples/first-light.yaml", "onto an empty switch"},
       {"norvctl apply --host switch1 --prune --yes switch1.yaml", "what is not in the file goes"}},
      &defineApply};
}

}  // namespace Norvctl
