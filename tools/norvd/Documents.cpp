#include "Documents.h"

#include <utility>

#include "Log.h"
#include "Values.h"

namespace Norvd {

using Norv::State::Document;
using Norv::State::DocumentError;
using Norv::State::LiveSwitch;
using Norv::State::Plan;
using Norv::State::Problem;

namespace {

std::string text(const std::vector<Problem>& problems) {
  const Problem& first = problems.front();
  std::string all = (first.mark.file.empty() ? "" : text(first.mark) + ": ") + first.text;
  if (problems.size() > 1) all += " (and " + std::to_string(problems.size() - 1) + " more)";
  return all;
}

std::string listed(const std::vector<std::string>& files) {
  std::string all;
  for (const std::string& file : files) all += (all.empty() ? "" : ", ") + file;
  return all;
}

std::set<std::string> all(const Norv::State::Offer& offer) {
  std::set<std::string> names = offer.moduleClasses;
  names.insert(offer.drivers.begin(), offer.drivers.end());
  return names;
}

}  // namespace

Documents::Documents(const Options& options, Memory& memory)
    : options_(options), memory_(memory), files_(options.wanted) {}

std::shared_ptr<const Plan> Documents::refresh(const LiveSwitch& live) {
  const auto offered = all(live.offer);
  // A document that was not good may have become so with the switch.
  const bool due = files_.changed() || again_ || offered != offered_ || !complaint_.empty();
  if (!due) return nullptr;
  const bool asked = std::exchange(again_, false);
  offered_ = offered;
  std::string complaint;
  std::shared_ptr<const Plan> plan;
  try {
    Document document = files_.document(live.offer);
    const auto problems = checkReferences(document, &live, options_.prune);
    if (!problems.empty()) {
      complaint = text(problems);
    } else if (document.wanted.objects() == 0 && wantedBefore() && !options_.allowMassDelete) {
      complaint = "it is empty, and was not before; --allow-mass-delete lets it";
    } else {
      plan = std::make_shared<Plan>(makePlan(live, document.wanted, planOptions()));
      complaint = deletesTooMuch(*plan, document.wanted);
    }
    if (complaint.empty()) {
      inForce_ = std::move(document);
      from_ = listed(options_.wanted);
      keep();
      log(Level::notice, "document: " + from_ + " is in force, " +
                             std::to_string(objectsOf(inForce_->wanted).size()) + " objects");
    }
  } catch (const DocumentError& error) {
    complaint = text(error.problems());
  } catch (const std::exception& error) {
    complaint = error.what();
  }
  if (!inForce_) takeLastGood(live);
  if (!complaint.empty() && (asked || complaint != complaint_)) {
    log(Level::error, "document: not taken: " + complaint + "; in force: " + from_);
  }
  complaint_ = complaint;
  return complaint.empty() ? plan : nullptr;
}

void Documents::keep() {
  if (inForce_) memory_.lastGoodIs(yaml(inForce_->wanted));
}

// Whether anything is in force, or was when the last good one was kept.
bool Documents::wantedBefore() const {
  if (inForce_) return inForce_->wanted.objects() != 0;
  const auto kept = memory_.lastGood();
  return kept && *kept != yaml(Norv::State::Switch());
}

void Documents::takeLastGood(const LiveSwitch& live) {
  const auto kept = memory_.lastGood();
  if (!kept) return;
  try {
    inForce_ = readDocument({{memory_.file("wanted.yaml"), *kept}}, live.offer);
    from_ = "the last good one, kept in " + memory_.file("wanted.yaml");
  } catch (const DocumentError& error) {
    const std::string complaint = text(error.problems());
    if (complaint != lastGoodComplaint_) {
      log(Level::warning, "document: the last good one cannot be used: " + complaint);
    }
    lastGoodComplaint_ = complaint;
  }
}

std::string Documents::deletesTooMuch(const Plan& plan, const Norv::State::Switch& wanted) const {
  const bool empties = options_.prune && wanted.objects() == 0 && plan.deletions != 0;
  if (options_.allowMassDelete || !(plan.deletesMuch() || empties)) return "";
  return "it would delete " + std::to_string(plan.deletions) + " of " +
         std::to_string(plan.liveObjects) + " objects; --allow-mass-delete lets it";
}

}  // namespace Norvd
