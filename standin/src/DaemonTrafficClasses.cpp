// Traffic classes and the rules of who may run what.

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "Daemon.h"
#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::uint64_t maxTasks = 32;  // Of one module.

double now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void fill(bess::pb::ListTcsResponse::TrafficClassStatus& status, const TrafficNode& node) {
  bess::pb::TrafficClass& shown = *status.mutable_class_();
  shown.set_name(node.name);
  shown.set_policy(node.policy);
  shown.set_wid(node.worker);
  shown.set_leaf_module_name(node.leafModule);
  shown.set_leaf_module_taskid(node.leafTask);
  if (node.policy == "rate_limit") {
    (*shown.mutable_limit())[node.resource] = node.limit;
    (*shown.mutable_max_burst())[node.resource] = node.maxBurst;
  }
  if (node.parent == nullptr) return;
  status.set_parent(node.parent->name);
  if (node.parent->policy == "priority") shown.set_priority(node.priority);
  if (node.parent->policy == "weighted_fair") shown.set_share(node.share);
}

// Whether another module that a worker runs leads to this one.
bool fed(const Module& module) {
  for (const auto& [number, gate] : module.inputs)
    for (const auto& source : gate.sources)
      if (source.first != &module && source.first->activeWorkers.any()) return true;
  return false;
}

}  // namespace

void Daemon::resetTcs(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) {
  const Pause pause(*this);
  classes_.reset();
}

void Daemon::listTcs(const bess::pb::ListTcsRequest& request, bess::pb::ListTcsResponse& response) {
  if (request.wid() >= Workers::limit)
    throw Refusal(EINVAL, "'wid' must be between 0 and " + std::to_string(Workers::limit - 1));
  classes_.forEachListed(static_cast<int>(request.wid()), [&](const TrafficNode& node) {
    fill(*response.add_classes_status(), node);
  });
}

int Daemon::checkedWorker(std::int64_t wid) {
  if (wid < -1 || wid >= Workers::limit)
    throw Refusal(EINVAL,
                  "'wid' must be -1 or between 0 and " + std::to_string(Workers::limit - 1));
  if (wid <= 0 && workers_.empty()) launchFirstWorker();
  if (wid >= 0 && !workers_.exists(wid))
    throw Refusal(EINVAL, "worker:" + std::to_string(wid) + " does not exist");
  return static_cast<int>(wid);
}

void Daemon::place(TrafficNode& node, const bess::pb::TrafficClass& wanted) {
  try {
    if (!wanted.parent().empty())
      classes_.attachToParent(node, wanted);
    else
      classes_.leaveWaiting(node, checkedWorker(wanted.wid()));
  } catch (const Refusal&) {
    classes_.lose(node);
    throw;
  }
}

TrafficNode& Daemon::trafficClassNamed(const bess::pb::TrafficClass& wanted) const {
  if (!wanted.leaf_module_name().empty()) {
    const Module& module = pipeline_.existing(wanted.leaf_module_name());
    if (wanted.leaf_module_taskid() >= maxTasks)
      throw Refusal(EINVAL, "'taskid' must be between 0 and " + std::to_string(maxTasks - 1));
    return classes_.leafOf(module.name, wanted.leaf_module_taskid());
  }
  if (wanted.name().empty())
    throw Refusal(EINVAL, "One of 'name' or 'leaf_module_name' must be specified");
  TrafficNode* node = classes_.find(wanted.name());
  if (node == nullptr) throw Refusal(ENOENT, "Tc '" + wanted.name() + "' doesn't exist");
  return *node;
}

void Daemon::addTc(const bess::pb::AddTcRequest& request, bess::pb::EmptyResponse&) {
  const Pause pause(*this);
  place(classes_.make(request.class_()), request.class_());
}

void Daemon::updateTcParams(const bess::pb::UpdateTcParamsRequest& request,
                            bess::pb::EmptyResponse&) {
  const Pause pause(*this);
  classes_.updateParams(trafficClassNamed(request.class_()), request.class_());
}

void Daemon::updateTcParent(const bess::pb::UpdateTcParentRequest& request,
                            bess::pb::EmptyResponse&) {
  const Pause pause(*this);
  TrafficNode& node = trafficClassNamed(request.class_());
  const int formerWorker = node.worker;
  classes_.detach(node);
  active_.takenAway();
  place(node, request.class_());
  if (formerWorker >= 0) classes_.dropNeedlessTop(formerWorker);
}

void Daemon::getTcStats(const bess::pb::GetTcStatsRequest& request,
                        bess::pb::GetTcStatsResponse& response) {
  if (request.name().empty()) throw Refusal(EINVAL, "Argument must be a name in str");
  if (classes_.find(request.name()) == nullptr)
    throw Refusal(ENOENT, "No TC '" + request.name() + "' found");
  response.set_timestamp(now());
}

bool Daemon::activeInRunningWorker(const Module& module) const {
  return (module.activeWorkers & workers_.running()).any();
}

void Daemon::checkSchedulingConstraints(const bess::pb::EmptyRequest&,
                                        bess::pb::CheckSchedulingConstraintsResponse& response) {
  if (!workers_.anyRunning()) attachLeaves();
  active_.find(pipeline_, classes_);
  for (const auto& [name, module] : pipeline_.all()) {
    const ModuleClass& moduleClass = *module->moduleClass;
    // A task that passes packets on has nothing to do while nobody hands it any.
    const bool starved = module->tasks() > 0 && moduleClass.inputGates > 0 &&
                         module->activeWorkers.any() && !fed(*module);
    const bool crowded =
        moduleClass.maxWorkers > 0 &&
        module->activeWorkers.count() > static_cast<std::size_t>(moduleClass.maxWorkers);
    if (starved || crowded) response.add_modules()->set_name(name);
    if (crowded) response.set_fatal(true);
  }
}

}  // namespace Standin
