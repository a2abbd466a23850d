#include "Wanted.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <utility>

#include <Norv/State/Files.h>
#include <bess/pb/service.pb.h>

#include "../protocol/Requests.h"
#include "../text/Terminal.h"
#include "../text/Text.h"

namespace Norvctl {

namespace {

using Norv::State::Change;
using Norv::State::Plan;

std::string usualStateDir() {
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state) {
    return std::string(state) + "/norv";
  }
  const char* home = std::getenv("HOME");
  return home && *home ? std::string(home) + "/.local/state/norv" : "";
}

const char* signOf(Change::Action action) {
  switch (action) {
    case Change::Action::create:
      return "+";
    case Change::Action::change:
      return "~";
    case Change::Action::recreate:
      return "-/+";
    case Change::Action::remove:
      return "-";
  }
  return "";
}

// Without the middle of what nobody reads to its end, as a name may be of any length.
std::string shortened(const std::string& text) {
  constexpr std::size_t most = 1000, kept = 400;
  if (text.size() <= most) return text;
  return text.substr(0, kept) + "..." + text.substr(text.size() - kept);
}

std::string counted(std::size_t number, const char* one, const char* many) {
  return grouped(number) + " " + (number == 1 ? one : many);
}

}  // namespace

void addStateDir(CLI::App& command, WantedOptions& options) {
  command
      .add_option("--state-dir", options.stateDir,
                  "keep in this DIR what was applied and no daemon tells again, a file for each "
                  "switch; none keeps nothing; usually ~/.local/state/norv")
      ->type_name("DIR");
}

void addWanted(CLI::App& command, WantedOptions& options) {
  command
      .add_option("FILE", options.files,
                  "the wanted switch, YAML or JSON, in one file or several; - is standard input")
      ->required();
  command.add_flag("--prune", options.plan.prune,
                   "delete what the switch has and the document has not");
  command.add_flag("--recreate-unknown", options.plan.recreateUnknown,
                   "set again what is stated and the daemon does not tell, instead of taking it "
                   "to be right");
}

KnownSwitch::KnownSwitch(const WantedOptions& options, const Target& target, Access access)
    : direct_(target.host(), target.port(),
              options.timeoutSeconds > 0
                  ? std::chrono::ceil<std::chrono::milliseconds>(durationOf(options.timeoutSeconds))
                  : Direct::usualPatience),
      limitSeconds_(options.timeoutSeconds) {
  if (options.target.standin || options.stateDir == "none") return;
  folder_ = options.stateDir.empty() ? usualStateDir() : options.stateDir;
  if (folder_.empty()) return;
  Norv::State::checkFolder(folder_);
  file_ = folder_ + "/" + Norv::State::recordName(direct_.address());
  if (access == Access::write) {
    hold();
  } else {
    load();
  }
}

void KnownSwitch::hold() {
  if (file_.empty()) return;
  lock_.emplace(folder_, direct_.address(), Norv::State::applyingProgram);
  lock();
  load();
}

void KnownSwitch::load() {
  std::string said;
  record_ = Norv::State::Record::load(file_, &said);
  if (!said.empty()) std::cerr << "norvctl: " << escaped(said) << '\n';
}

// Another apply ends; norvd does not. Without a limit it is waited for as long as that takes.
void KnownSwitch::lock() {
  const auto begin = std::chrono::steady_clock::now();
  const std::string address = escaped(direct_.address());
  bool said = false;
  std::string refusal;
  const auto waits = [&](const Norv::State::SwitchLock::Holder& holder) {
    if (holder.program != Norv::State::applyingProgram) {
      refusal = text(holder) + " keeps the switch at " + direct_.address() + ", by " +
                lock_->file() + "; change the document that it follows, or end it first";
      return false;
    }
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - begin;
    if (limitSeconds_ > 0 && waited.count() > limitSeconds_) {
      refusal = text(holder) + " is still at work on " + address + "; try again when it has ended";
      return false;
    }
    if (!std::exchange(said, true)) {
      std::cerr << "norvctl: " << text(holder) << " is at work on " << address
                << "; waiting for its end\n";
    }
    return true;
  };
  try {
    lock_->take(waits);
  } catch (const std::exception& error) {
    throw std::runtime_error(std::string(error.what()) +
                             "; give another folder with --state-dir, or none");
  }
  if (!refusal.empty()) throw std::runtime_error(refusal);
}

Norv::State::LiveSwitch KnownSwitch::read() {
  Norv::State::LiveSwitch live = readBare();
  record_.complement(live);
  return live;
}

Norv::State::LiveSwitch KnownSwitch::readBare() {
  try {
    return Norv::State::readSwitch(direct_.channel(), direct_.patience());
  } catch (const Norv::State::ReadError& error) {
    const bool silent = error.status() == grpc::StatusCode::UNAVAILABLE ||
                        error.status() == grpc::StatusCode::DEADLINE_EXCEEDED;
    const std::string address = escaped(direct_.address());
    throw DirectError(error.status(),
                      silent
                          ? "no answer from " + address + ": " + direct_.whyNoAnswer()
                          : "cannot read the switch at " + address + ": " + escaped(error.what()));
  }
}

std::string KnownSwitch::resume(std::int64_t worker) {
  bess::pb::ResumeWorkerRequest request;
  request.set_wid(worker);
  try {
    const auto reply = direct_.ask<bess::pb::EmptyResponse>(Norv::resumeWorker, request);
    if (reply.error().code() == 0) return "";
    return refusalText(reply.error().code(), reply.error().errmsg());
  } catch (const DirectError& error) {
    return error.what();
  }
}

void KnownSwitch::saveRecord() const {
  if (!file_.empty()) record_.save(file_);
}

std::optional<Norv::State::Document> usableDocument(const WantedOptions& options,
                                                    const Norv::State::LiveSwitch* live) {
  std::vector<Norv::State::Problem> problems;
  std::optional<Norv::State::Document> document;
  try {
    document = readFiles(options.files, live ? live->offer : Norv::State::Offer());
    problems = checkReferences(*document, live, options.plan.prune);
  } catch (const Norv::State::DocumentError& error) {
    problems = error.problems();
  }
  if (problems.empty()) return document;
  constexpr std::size_t shown = Norv::State::shownProblems;
  for (std::size_t i = 0; i < std::min(problems.size(), shown); ++i) {
    std::cerr << escaped(text(problems[i].mark) + ": " + shortened(problems[i].text)) << '\n';
  }
  if (problems.size() > shown) std::cerr << "... and " << problems.size() - shown << " more\n";
  std::cerr << "norvctl: " << counted(problems.size(), "problem", "problems")
            << " in the document; nothing was sent\n";
  return {};
}

std::string planText(const Plan& plan, bool colour) {
  const Colours colours(colour);
  std::string all;
  for (const Change& change : plan.changes) {
    const char* shade = change.action == Change::Action::create   ? colours.good()
                        : change.action == Change::Action::change ? colours.warning()
                                                                  : colours.bad();
    const std::string sign = signOf(change.action);
    all += shade + std::string(3 - sign.size(), ' ') + sign + colours.end() + " " +
           escaped(text(change.object));
    for (std::size_t i = 0; i < change.details.size(); ++i) {
      // A connection reads on with where it leads.
      const bool leads = change.details[i].starts_with("->");
      all += (i != 0 ? "; " : leads ? " " : "  ") + escaped(change.details[i]);
    }
    all += "\n";
  }
  for (const auto& one : plan.assumed) {
    all += std::string(colours.faint()) +
           "    assumed to be right, as the daemon does not tell: " + escaped(text(one)) +
           colours.end() + "\n";
  }
  for (const auto& step : plan.steps) {
    if (step.impossible.empty()) continue;
    all += std::string(colours.bad()) + "  ! " + colours.end() +
           escaped(text(plan.changes[step.change].object) + ": " + step.impossible) + "\n";
  }
  for (const std::string& what : plan.warnings) {
    all += std::string(colours.warning()) + "  ! " + colours.end() + escaped(what) + "\n";
  }
  for (const std::string& what : plan.pauses) all += "    pauses " + escaped(what) + "\n";
  std::array<std::size_t, 4> counts{};
  for (const Change& change : plan.changes) ++counts[static_cast<std::size_t>(change.action)];
  if (plan.empty()) {
    all += "The switch is as wanted";
  } else {
    all += counted(plan.commands(), "command", "commands") + ": " + grouped(counts[0]) +
           " to create, " + grouped(counts[1]) + " to change, " + grouped(counts[2]) +
           " to recreate, " + grouped(counts[3]) + " to delete";
  }
  if (plan.leftAlone != 0) {
    all += "; " + counted(plan.leftAlone, "object is", "objects are") +
           " not in the document and left alone";
  }
  return all + ".\n";
}

std::string planCommands(const Plan& plan) {
  std::string all, open;
  const Norv::State::Execution execution(plan);
  std::size_t without = 0;
  const auto announce = [&] {
    if (!open.empty()) all += "{\"announce\":" + jsonText(open) + "}\n";
  };
  for (std::size_t i = 0; i < plan.steps.size(); ++i) {
    const auto& step = plan.steps[i];
    const bool goes = execution.mayGo(i);
    if (!goes && step.request) ++without;
    if (!step.impossible.empty()) {
      std::cerr << "norvctl: "
                << escaped(text(plan.changes[step.change].object) + ": " + step.impossible) << '\n';
    }
    if (!goes) continue;
    const std::string queue = sectionName(step.queue);
    if (queue != open) announce();
    open = queue;
    all += "{\"queue\":" + jsonText(queue) + ",\"type\":\"" + stringValue(step.type).charPtr() +
           "\",\"request\":" + messageJson(*step.request) + "}\n";
  }
  announce();
  if (without != 0) {
    std::cerr << "norvctl: without " << counted(without, "command that needs", "commands that need")
              << " what cannot be done\n";
  }
  return all;
}

}  // namespace Norvctl
