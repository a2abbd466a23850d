#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <random>
#include <set>

#include "SchemaCheck.h"
#include "SwitchFixture.h"

// Random documents, each applied to the switch that the one before left, and to an empty one: both
// end the same, and nothing is left to do. NORV_SEEDS says how many; the usual number is small.

namespace Norv::State {

namespace {

class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  // `workersStated`: else it speaks of none.
  std::string document(bool workersStated = true) {
    const int workers = workersStated ? 1 + pick(3) : 1;
    if (!workersStated) {
      const std::string above = trafficClasses(workers) + ports() + modules(workers);
      return above + connections();
    }
    std::string text = "workers: {";
    for (int i = 0; i < workers; ++i) {
      text += (i ? ", " : "") + std::to_string(i) + ": {core: " + std::to_string(pick(4)) +
              (pick(4) == 0 ? ", running: false" : "") + "}";
    }
    text += "}\n" + trafficClasses(workers) + ports() + modules(workers) + connections();
    return text;
  }

 private:
  int pick(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }
  std::string number(int below) { return std::to_string(pick(below)); }

  std::string trafficClasses(int workers) {
    std::string text;
    for (int i = 0; i < pick(5); ++i) {
      const std::string name = "t" + std::to_string(i);
      const bool nested = !classes_.empty() && pick(2) == 0;
      // Of the classes above, only these take any number of children without a word.
      std::string place = ", wid: " + number(workers);
      if (nested) {
        const Class& parent = anyClass();
        place = ", parent: " + parent.name + below(parent);
      }
      const int kind = pick(5);
      if (kind == 0) {
        text += "  " + name + ": {policy: weighted_fair, resource: packet" + place + "}\n";
        classes_.push_back({name, "share"});
      } else if (kind == 1) {
        text += "  " + name + ": {policy: priority" + place + "}\n";
        classes_.push_back({name, "priority"});
      } else if (kind == 2) {
        text += "  " + name + ": {policy: rate_limit, limit: {packet: " + number(5000) + "}" +
                place + "}\n";
      } else {
        text += "  " + name + ": {policy: round_robin" + place + "}\n";
        classes_.push_back({name, ""});
      }
    }
    return text.empty() ? "" : "traffic_classes:\n" + text;
  }

  struct Class {
    std::string name;
    std::string children;  // what each needs below it
  };
  const Class& anyClass() {
    return classes_[static_cast<std::size_t>(pick(static_cast<int>(classes_.size())))];
  }
  // Each priority is taken once.
  std::string below(const Class& parent) {
    if (parent.children.empty()) return "";
    const int value = parent.children == "share" ? 1 + pick(3) : priorities_++;
    return ", " + parent.children + ": " + std::to_string(value);
  }

  std::string ports() {
    std::string text;
    for (int i = 0; i < 3; ++i) {
      if (pick(2) == 0) continue;
      ports_.push_back("p" + std::to_string(i));
      text += "  p" + std::to_string(i) + ": {driver: PMDPort, arg: {vdev: net_null" +
              std::to_string(i) + "}, num_inc_q: " + std::to_string(1 + pick(2)) +
              ", mtu: " + std::to_string(1000 + pick(2) * 500) + "}\n";
    }
    return text.empty() ? "" : "ports:\n" + text;
  }

  std::string place(int workers) {
    if (!classes_.empty() && pick(2) == 0) {
      const Class& parent = anyClass();
      return ", tasks: {parent: " + parent.name + below(parent) + "}";
    }
    return ", tasks: {wid: " + number(workers) + "}";
  }

  std::string modules(int workers) {
    std::string text = "modules:\n";
    for (const std::string& port : ports_) {
      if (pick(2) == 0) continue;
      sources_.push_back("in_" + port);
      text += "  in_" + port + ": {class: PortInc, arg: {port: " + port + "}, burst: " + number(64);
      text += (pick(2) == 0 ? place(workers) : place(workers)) + "}\n";
    }
    for (int i = 0; i < 10; ++i) {
      const std::string name = "m" + std::to_string(i);
      if (pick(4) == 0) continue;
      text += "  " + name + ": " + module(name, workers) + "\n";
    }
    return text;
  }

  std::string module(const std::string& name, int workers) {
    switch (pick(9)) {
      case 0:
        sources_.push_back(name);
        return "{class: Source, arg: {pkt_size: " + std::to_string(60 + pick(3)) + "}" +
               place(workers) + "}";
      case 1: {
        splits_.push_back(name);
        std::string rules;
        for (int i = 0; i < 6; ++i) {
          if (pick(3) != 0)
            rules += "{gate: " + number(4) + ", fields: [10.0.0." + std::to_string(i) + "]}, ";
        }
        return "{class: ExactMatch, arg: {fields: [{offset: " + number(2) +
               ", num_bytes: 4}]}, default_gate: " + number(3) + ", rules: [" + rules + "]}";
      }
      case 2: {
        splits_.push_back(name);
        std::string rules;
        for (int i = 0; i < 5; ++i) {
          if (pick(3) != 0)
            rules += "{prefix: 10." + std::to_string(i) + ".0.0/16, gate: " + number(4) + "}, ";
        }
        return "{class: IPLookup, rules: [" + rules + "]}";
      }
      case 3: {
        splits_.push_back(name);
        std::string entries;
        for (int i = 0; i < 5; ++i) {
          if (pick(3) != 0)
            entries +=
                "{addr: \"02:00:00:00:00:0" + std::to_string(i) + "\", gate: " + number(4) + "}, ";
        }
        return "{class: L2Forward, default_gate: " + number(4) + ", entries: [" + entries + "]}";
      }
      case 4:
        through_.push_back(name);
        return "{class: Queue, arg: {size: " + std::to_string(64 << pick(3)) +
               ", prefetch: " + (pick(2) == 0 ? "true" : "false") + "}" + place(workers) + "}";
      case 5: {
        through_.push_back(name);
        std::string rules;
        for (int i = 0; i < 3; ++i) rules += "{dst_port: " + number(3) + ", drop: true}, ";
        return "{class: ACL, arg: {rules: [" + rules + "]}}";
      }
      case 6:
        through_.push_back(name);
        return "{class: Update, arg: {fields: [{offset: 14, size: 2, value: " + number(3) + "}]}}";
      case 7:
        splits_.push_back(name);
        return "{class: RoundRobin, arg: {gates: [0, 1, " + number(3) +
               "], mode: " + (pick(2) ? "packet" : "batch") + "}}";
      default:
        sinks_.push_back(name);
        return "Sink";
    }
  }

  std::string connections() {
    std::vector<std::string> ends = through_;
    ends.insert(ends.end(), splits_.begin(), splits_.end());
    ends.insert(ends.end(), sinks_.begin(), sinks_.end());
    if (ends.empty()) return "";
    const auto end = [&] {
      return ends[static_cast<std::size_t>(pick(static_cast<int>(ends.size())))];
    };
    std::string text = "connections:\n";
    std::size_t before = text.size();
    std::string hooks;
    const auto add = [&](const std::string& from, int gate) {
      if (pick(4) == 0) return;
      const std::string to = end();
      text += "  - {from: " + from + ", ogate: " + std::to_string(gate) + ", to: " + to +
              (pick(4) == 0 ? ", skip_default_hooks: true" : "") + "}\n";
      if (pick(4) != 0) return;
      hooks += pick(2) == 0 || !inputs_.insert(to).second
                   ? "  - {class: Track, module: " + from + ", ogate: " + std::to_string(gate) +
                         ", name: out" + number(2) + "}\n"
                   : "  - {class: TcpDump, module: " + to +
                         ", igate: 0, name: in, arg: {fifo: /tmp/" + number(2) +
                         ", defer: true}}\n";
    };
    for (const std::string& from : sources_) add(from, 0);
    for (const std::string& from : through_) add(from, 0);
    for (const std::string& from : splits_) {
      for (int gate = 0; gate < 3; ++gate) add(from, gate);
    }
    if (text.size() == before) return "";
    return text + (hooks.empty() ? "" : "hooks:\n" + hooks);
  }

  std::mt19937 random_;
  std::vector<Class> classes_;
  int priorities_ = 0;
  std::set<std::string> inputs_;  // that have a hook
  std::vector<std::string> ports_, sources_, through_, splits_, sinks_;
};

}  // namespace

// How many; a few when nobody says.
unsigned seeds() {
  const char* given = std::getenv("NORV_SEEDS");
  return given == nullptr ? 40 : static_cast<unsigned>(std::atoi(given));
}

using StateKind = Execution::State::Kind;

// The changes of a plan whose steps can all go.
std::set<std::size_t> possible(const Plan& plan) {
  const Execution execution(plan);
  std::set<std::size_t> possible, stuck;
  for (std::size_t i = 0; i < plan.steps.size(); ++i) {
    (execution.mayGo(i) ? possible : stuck).insert(plan.steps[i].change);
  }
  for (const std::size_t change : stuck) possible.erase(change);
  possible.erase(Step::none);
  return possible;
}

// Applies one document after the other, until one does not come out as it should.
void applyEach(TestSwitch& daemon, const PlanOptions& options,
               const std::function<std::string(unsigned seed)>& make,
               const std::function<void(const std::string& document)>& check) {
  std::string last;
  for (unsigned seed = 1; seed <= seeds() && !testing::Test::HasFailure(); ++seed) {
    const std::string document = make(seed);
    const auto applied = daemon.apply(document, options);
    SCOPED_TRACE("seed " + std::to_string(seed) + "\n" + last + "becomes\n" + document +
                 summary(applied.plan));
    EXPECT_THAT(applied.refusals, testing::IsEmpty());
    for (const std::size_t one : possible(applied.plan)) {
      const auto& state = applied.states[one];
      EXPECT_EQ(state.kind, StateKind::done)
          << text(applied.plan.changes[one].object) << ": " << state.text << state.because;
    }
    EXPECT_EQ(schemaProblem(json(wanted(document))), "");
    check(document);
    last = document;
  }
}

constexpr PlanOptions prune{.prune = true};

TEST(RandomDocuments, EndAsWantedFromWhereverTheyBegin) {
  TestSwitch daemon;
  applyEach(
      daemon, prune, [](unsigned seed) { return Generator(seed).document(); },
      [&](const std::string& document) {
        EXPECT_EQ(summary(daemon.plan(document, prune)), "");
        TestSwitch fresh;
        EXPECT_THAT(fresh.apply(document).refusals, testing::IsEmpty());
        EXPECT_EQ(daemon.exported(), fresh.exported());
      });
}

TEST(RandomDocuments, WithoutWorkersEndAsWanted) {
  TestSwitch daemon;
  applyEach(
      daemon, prune, [](unsigned seed) { return Generator(seed).document(false); },
      [&](const std::string& document) { EXPECT_EQ(summary(daemon.plan(document, prune)), ""); });
}

TEST(RandomDocuments, OnAnOlderDaemonEndAsWanted) {
  TestSwitch daemon(TestSwitch::older());
  applyEach(
      daemon, prune, [](unsigned seed) { return Generator(seed).document(); },
      [&](const std::string& document) { EXPECT_EQ(summary(daemon.plan(document, prune)), ""); });
}

// One after the other onto what the ones before left: what cannot be is said before it is sent.
TEST(RandomDocuments, WithoutPruneNothingIsRefused) {
  TestSwitch daemon;
  applyEach(
      daemon, {},
      [&](unsigned seed) {
        if (seed % 5 == 1) daemon.reset();
        return Generator(seed).document();
      },
      [&](const std::string& document) {
        const Plan rest = daemon.plan(document);
        EXPECT_THAT(possible(rest), testing::IsEmpty()) << summary(rest);
        EXPECT_TRUE(daemon.read().lostTasks.empty());
      });
}

}  // namespace Norv::State
