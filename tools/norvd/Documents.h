#pragma once

#include <memory>
#include <optional>
#include <string>

#include <Norv/State/Document.h>
#include <Norv/State/LiveSwitch.h>
#include <Norv/State/Plan.h>

#include "Memory.h"
#include "Options.h"
#include "WantedFiles.h"

namespace Norvd {

// Which document is in force: that of the files where it can be used, else the last one that could.
// For the main thread.
class Documents {
 public:
  Documents(const Options& options, Memory& memory);

  // Whether the files have changed; never waits.
  bool stirred() const { return files_.stirred(); }
  // Reads the files again when they, or what the daemon offers, are not what they were, and takes
  // their document into force when it is good and does not delete most of the switch. Returns the
  // plan for the document in force where that was made for it.
  std::shared_ptr<const Norv::State::Plan> refresh(const Norv::State::LiveSwitch& live);
  // The next refresh reads whatever has changed or not.
  void readAgain() { again_ = true; }

  // Null when there is none yet.
  const Norv::State::Document* inForce() const { return inForce_ ? &*inForce_ : nullptr; }
  // What that is, for a person.
  const std::string& from() const { return from_; }
  // Why the files are not in force; empty: they are.
  const std::string& complaint() const { return complaint_; }

  Norv::State::PlanOptions planOptions() const {
    return {.prune = options_.prune, .recreateUnknown = options_.recreateUnknown};
  }
  // Keeps the one in force, if it could not be kept before.
  void keep();
  // Why this plan is not to be carried out, or empty.
  std::string deletesTooMuch(const Norv::State::Plan& plan,
                             const Norv::State::Switch& wanted) const;

 private:
  bool wantedBefore() const;
  void takeLastGood(const Norv::State::LiveSwitch& live);

  const Options& options_;
  Memory& memory_;
  WantedFiles files_;
  bool again_ = true;
  std::set<std::string> offered_;  // by the daemon when the files were read: classes and drivers
  std::optional<Norv::State::Document> inForce_;
  std::string from_ = "none";
  std::string complaint_;
  std::string lastGoodComplaint_;  // the same of the one that was kept
};

}  // namespace Norvd
