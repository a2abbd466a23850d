#include "Road.h"

#include "wanted/StepEnds.h"

namespace Norvd {

using Norv::Agent::CommandReport;
using Norv::Agent::Outcome;

// The answers are read again from the switch.
class Road::Cmd : public Norv::GrpcCmd {
 public:
  using GrpcCmd::GrpcCmd;
  void processResponse(google::protobuf::Message*) override {}
};

Road::Road(UnderWay& underWay, std::function<void()> wake)
    : underWay_(underWay),
      wake_(std::move(wake)),
      config_(Norv::GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("norvd")),
      pending_(Norv::CmdGroup::CmdGroupIs()),
      status_(Norv::GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs()),
      kit_(config_, pending_, status_) {
  kit_.ledger()->listenerIs([this](const CommandReport& report) { onEnd(report); });
}

void Road::connect(const std::string& host, U16 port) {
  const auto connection = Norv::ConnectionConfig::ConnectionConfigIs(port, host);
  manager_ = Norv::ConnectionsMgr::ConnectionsMgrIs(connection, config_, pending_, status_);
  kit_.managerIs(manager_);
}

void Road::send(std::size_t step, const Norv::State::Step& what, const std::string& note) {
  const std::string queue = Norv::State::sectionName(what.queue);
  if (queue != unannounced_) announce();
  unannounced_ = queue;
  if (!config_->cmdConfigGroupHas(queue)) {
    config_->cmdConfigGroupIs(Norv::CmdConfigGroup::CmdConfigGroupIs(queue));
  }
  stepOf_[++made_] = step;
  {
    const std::lock_guard guard(mutex_);
    if (notes_.empty()) underWay_.noteIs(note);
    notes_.emplace_back(made_, note);
  }
  google::protobuf::Message* request = what.request->New();
  request->CopyFrom(*what.request);
  config_->cmdConfigGroup(queue)->cmdBatchEnq(
      Lumo::allocate<Norv::Agent::Tracked<Cmd>>(kit_.ledger(), request, what.type));
}

void Road::announce() {
  if (unannounced_.empty()) return;
  const std::string queue = std::exchange(unannounced_, "");
  config_->cmdConfigGroup(queue)->enqueueVersionInc(1);
}

// On the worker, before it sends the next one: so the note is always of the one under way. What
// failed stays noted.
void Road::onEnd(const CommandReport& report) {
  {
    const std::lock_guard guard(mutex_);
    if (report.outcome == Outcome::failed) underWay_.died();
    std::erase_if(notes_, [&](const auto& one) { return one.first == report.id; });
    underWay_.noteIs(notes_.empty() ? "" : notes_.front().second);
    ended_.push_back(report);
  }
  wake_();
}

std::optional<std::size_t> Road::stepOf(U64 id) const {
  const auto step = stepOf_.find(id);
  return step == stepOf_.end() ? std::nullopt : std::optional(step->second);
}

std::vector<Road::Ended> Road::takeEnded() {
  std::vector<CommandReport> reports;
  {
    const std::lock_guard guard(mutex_);
    reports.swap(ended_);
  }
  std::vector<Ended> result;
  for (const CommandReport& report : reports) {
    const auto step = stepOf_.find(report.id);
    if (step == stepOf_.end()) continue;
    std::string text = report.errorText;
    if (report.outcome == Outcome::refused && text.empty()) {
      text = "error " + std::to_string(report.errorCode);
    }
    result.push_back({step->second, Norvctl::stepEndOf(report.outcome), text, report});
    stepOf_.erase(step);
  }
  return result;
}

}  // namespace Norvd
