#pragma once

#include <google/protobuf/message.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <Norv/GrpcRequestType.h>
#include <Norv/State/Document.h>
#include <Norv/State/LiveSwitch.h>

// From the live switch to the wanted one with the least disruption. A pure function: it asks
// nobody, and the same in gives the same out.
namespace Norv::State {

// What a command does to the table of a module, in this order; entries by their keys.
struct TableEdit {
  bool clears = false;
  std::vector<std::string> removed, added;

  bool empty() const { return !clears && removed.empty() && added.empty(); }
};

// One command.
struct Step {
  static constexpr std::size_t none = SIZE_MAX;

  GrpcRequestType type = unknown;
  std::shared_ptr<const google::protobuf::Message> request;
  Kind queue = Kind::module;        // travels in the queue of this section's name
  std::size_t change = none;        // what it belongs to; none: a pause around others
  std::vector<std::size_t> after;   // earlier steps that must have succeeded
  std::vector<std::size_t> behind;  // earlier steps that must have ended, in whatever way
  std::string impossible;           // why there is no command that does it
  TableEdit edit;
  std::size_t parts = 1;  // it is made of; of several, a refusal may leave some done
};

// What becomes of one object.
struct Change {
  enum class Action { create, change, recreate, remove };
  Action action = Action::create;
  Object object;
  std::vector<std::string> details;  // "arg.size: 1024 -> 2048", or why it is made anew
};

// What is stated, not told by the daemon, and taken to be right.
struct Assumed {
  Assumed(Object of, std::string part) : object(std::move(of)), what(std::move(part)) {}
  Object object;
  std::string what;  // of the object; empty: that it is there
};
// "module fib: rules".
std::string text(const Assumed& assumed);

struct Plan {
  std::vector<Change> changes;  // in the order of their first steps
  std::vector<Step> steps;
  std::size_t leftAlone = 0;  // objects of the switch that the document does not have
  std::vector<Assumed> assumed;
  std::vector<std::string> warnings;  // what is lost on the way
  std::vector<std::string> pauses;    // which workers stand still, and why
  std::size_t deletions = 0;
  std::size_t liveObjects = 0;
  Unfinished unfinished;  // while it is carried out

  std::size_t commands() const;
  bool empty() const { return steps.empty(); }
  // More than half of a switch that has something to lose.
  bool deletesMuch() const { return liveObjects >= 10 && deletions * 2 > liveObjects; }
};

struct PlanOptions {
  bool prune = false;            // delete what the document does not have
  bool recreateUnknown = false;  // set again what the daemon does not tell
};

// What the document refers to must be there: see checkReferences.
Plan makePlan(const LiveSwitch& live, const Switch& wanted, const PlanOptions& options = {});

}  // namespace Norv::State
