// Workers.

#include <cerrno>

#include "Daemon.h"
#include "Refusal.h"

namespace Standin {

void Daemon::launchFirstWorker() {
  workers_.add(0, 0, "");
}

void Daemon::attachLeaves() {
  const auto anyWorker = [this] {
    if (!workers_.empty()) return workers_.next();
    launchFirstWorker();  // It is nobody's turn yet.
    return 0;
  };
  classes_.attachWaiting(anyWorker, [this](const TrafficNode& leaf) { active_.attached(leaf); });
}

void Daemon::pauseAll(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) {
  workers_.setRunning(false);
}

void Daemon::pauseWorker(const bess::pb::PauseWorkerRequest& request, bess::pb::EmptyResponse&) {
  workers_.setRunning(request.wid(), false);
}

void Daemon::resumeWorker(const bess::pb::ResumeWorkerRequest& request, bess::pb::EmptyResponse&) {
  workers_.setRunning(request.wid(), true);
}

void Daemon::resumeAll(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) {
  if (!workers_.anyRunning()) attachLeaves();
  metadata_.resumed();
  workers_.setRunning(true);
}

void Daemon::resetWorkers(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) {
  for (const auto& entry : workers_.all()) classes_.dropTree(entry.first);
  workers_.clear();
  active_.takenAway();
}

void Daemon::listWorkers(const bess::pb::EmptyRequest&, bess::pb::ListWorkersResponse& response) {
  for (const auto& [id, worker] : workers_.all()) {
    auto& status = *response.add_workers_status();
    status.set_wid(id);
    status.set_core(worker.core);
    status.set_running(worker.running);
    status.set_num_tcs(classes_.count(id));
  }
}

void Daemon::addWorker(const bess::pb::AddWorkerRequest& request, bess::pb::EmptyResponse&) {
  workers_.add(request.wid(), request.core(), request.scheduler());
}

void Daemon::destroyWorker(const bess::pb::DestroyWorkerRequest& request,
                           bess::pb::EmptyResponse&) {
  workers_.check(request.wid());
  const int id = static_cast<int>(request.wid());
  if (const TrafficNode* leaf = classes_.leafIn(id))
    throw Refusal(EBUSY, "Worker " + std::to_string(id) + " has active tasks: " + leaf->name);
  classes_.dropTree(id);
  workers_.erase(id);
}

}  // namespace Standin
