#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include <Norv/Agent/AscendingTable.h>
#include <Norv/Agent/Kit.h>

#include "RpcFailures.h"

namespace Norv::Agent {

namespace {

const TrackedEntry* tracked(const Lumo::Ptr<GrpcCmd>& cmd) {
  return dynamic_cast<const TrackedEntry*>(cmd.ptr());
}

// Somebody set the flag, or a command failed that is not tracked.
const char* const noneFailed = "the error flag rose, and not by the failure of a tracked command";

// In bytes of the message; in a failure's details.
constexpr std::size_t largestRequestShown = 64 * 1024;

// One call deletes one entry only where the indexes wrap.
template <class Queue>
void deleteAll(const Queue& queue) {
  while (queue->cmdBatchs() != 0) queue->cmdBatchDelAll();
}

}  // namespace

const char* workerName(Status::Worker worker) {
  switch (worker) {
    case Status::Worker::none:
      return "none";
    case Status::Worker::idle:
      return "idle";
    case Status::Worker::inFlight:
      return "in flight";
    case Status::Worker::stopped:
      return "stopped";
  }
  return "unknown";
}

// Follows one named queue: a command that leaves it is on its way to the pending queue, or has been
// discarded. The queue is asked by an iterator that starts at the index: for the last entry, and
// for the first one that has just gone, the queue answers that without walking, however long it is.
class Kit::QueueWatcher : public CmdConfigGroup::NotifieeConst {
 public:
  QueueWatcher(const Lumo::Ptr<CmdConfigGroup>& group, Kit* kit) : NotifieeConst(group), kit_(kit) {
    for (auto entry = group->cmdBatchIteratorConst(); entry; ++entry) {
      enter(entry.key(), tracked(entry.cmdBatch()));
    }
  }

  using CmdConfigGroup::NotifieeConst::onCmdBatch;
  void onCmdBatch(U32 index) override {
    const auto entry = notifier()->cmdBatchIteratorConst(index);
    if (entry && entry.key() == index) {
      enter(index, tracked(entry.cmdBatch()));
    } else if (const U64* const known = ids_.find(index)) {
      const U64 left = *known;
      ids_.erase(index);
      leave(left);
    }
  }
  U64 maximum() const { return maximum_; }

 private:
  // What stands under the index now, null for a command that is not tracked.
  void enter(U32 index, const TrackedEntry* entry) {
    maximum_ = std::max<U64>(maximum_, notifier()->cmdBatchs());
    U64* const known = ids_.find(index);
    if (!known) {
      if (entry) ids_.make(index) = entry->id();
      return;
    }
    if (entry && entry->id() == *known) return;
    const U64 replaced = *known;
    if (entry) {
      *known = entry->id();
    } else {
      ids_.erase(index);
    }
    leave(replaced);
  }
  void leave(U64 id) {
    kit_->ledger_->announced(id, notifier()->name());
    if (!kit_->moving()) kit_->ledger_->discarded(id);
  }

  Kit* const kit_;
  AscendingTable<U32, U64> ids_;  // index to id, of the tracked commands in the queue
  U64 maximum_ = 0;
};

class Kit::ConfigWatcher : public GrpcGlobalCmdConfig::NotifieeConst {
 public:
  ConfigWatcher(const Lumo::Ptr<GrpcGlobalCmdConfig>& config, Kit* kit)
      : NotifieeConst(config), kit_(kit) {}
  using GrpcGlobalCmdConfig::NotifieeConst::onCmdConfigGroup;
  void onCmdConfigGroup(Lumo::Name name) override { kit_->follow(name); }

 private:
  Kit* const kit_;
};

// Called on the worker when a failure sets the flag, and on whatever thread clears it.
class Kit::StatusWatcher : public GrpcErrorHandlingStatus::NotifieeConst {
 public:
  StatusWatcher(const Lumo::Ptr<GrpcErrorHandlingStatus>& status, Kit* kit) : kit_(kit) {
    // Last: the worker may call it from here on.
    startFollowing(status);
  }
  void onErrorOccured() override { kit_->onFlag(); }

 private:
  Kit* const kit_;
};

Kit::Kit(const Lumo::Ptr<GrpcGlobalCmdConfig>& config, const Lumo::Ptr<CmdGroup>& pendingQueue,
         const Lumo::Ptr<GrpcErrorHandlingStatus>& status, TimeSource now)
    : config_(config),
      pendingQueue_(pendingQueue),
      status_(status),
      ledger_(std::make_shared<Ledger>(std::move(now))),
      configWatcher_(Lumo::allocate<ConfigWatcher>(config, this)),
      statusWatcher_(Lumo::allocate<StatusWatcher>(status, this)) {
  followRpcFailures();
  for (auto group = config->cmdConfigGroupIteratorConst(); group; ++group) follow(group.key());
}

Kit::~Kit() = default;

void Kit::managerIs(const Lumo::Ptr<ConnectionsMgr>& manager) {
  manager_ = manager;
  threadLock_.store(manager ? manager->threadLock() : nullptr, std::memory_order_release);
  const std::thread* worker = manager ? manager->grpcReplyThread() : nullptr;
  ledger_->workerIs(worker ? worker->get_id() : std::thread::id());
}

void Kit::flightRecorderIs(const std::string& path, U64 size, unsigned mostCopies) {
  recorder_ = std::make_unique<FlightRecorder>(path, size, mostCopies);
}

void Kit::follow(const Lumo::Name& name) {
  const Lumo::Ptr<CmdConfigGroup> group = config_->cmdConfigGroup(name);
  const auto known = queues_.find(name);
  if (known != queues_.end() && known->second->lumoRawNotifier() == group.ptr()) return;
  if (known != queues_.end()) queues_.erase(known);
  if (group) queues_[name] = Lumo::allocate<QueueWatcher>(group, this);
}

template <class Function>
auto Kit::underThreadLock(Function function) const {
  Lumo::Lock* lock = threadLock_.load(std::memory_order_acquire);
  if (!lock) return function();
  Lumo::LockAnchor anchor(lock);
  return function();
}

// Whether the manager is moving a batch on this thread: it does so under threadLock, and discards
// without. Where there is no lock to tell by, yes.
bool Kit::moving() const {
  Lumo::Lock* lock = threadLock_.load(std::memory_order_acquire);
  return !lock || !Lumo::LockAnchor(lock).locked();
}

// The first tracked command in the pending queue. Under threadLock.
std::optional<U64> Kit::firstPending() const {
  const U64 announced = ledger_->announcedCount();
  if (found_.id == 0 && found_.announcedCount == announced) return std::nullopt;
  const U32 ahead = found_.index - pendingQueue_->cmdBatchMetadata().headIndex;
  const bool stillThere = found_.id != 0 && ahead < pendingQueue_->cmdBatchs();
  if (stillThere && ledger_->isOpen(found_.id)) return found_.id;
  found_ = {0, 0, announced};
  for (auto entry = pendingQueue_->cmdBatchIteratorConst(); entry; ++entry) {
    if (const TrackedEntry* found = tracked(entry.cmdBatch())) {
      found_ = {entry.key(), found->id(), announced};
      return found_.id;
    }
  }
  return std::nullopt;
}

// The command that the worker has taken and not answered, which is then the oldest open one; those
// it took before are entered as done with.
std::optional<U64> Kit::underWay() const {
  if (!threadLock_.load(std::memory_order_acquire)) return std::nullopt;
  return underThreadLock([&] { return ledger_->takenBefore(firstPending()); });
}

// On the worker: the command that has just failed is the oldest open one. Before managerIs the
// pending queue cannot be looked at from here, and a command that is not tracked passes for it.
bool Kit::trackedFailed() const {
  if (threadLock_.load(std::memory_order_acquire)) return underWay().has_value();
  return ledger_->openAnnounced() != 0;
}

void Kit::onFlag() {
  // The kit may go once it is stopped.
  const std::shared_ptr<Ledger> ledger = ledger_;
  const Lumo::Ptr<GrpcErrorHandlingStatus> status = status_;
  const auto isUp = [&] { return status->errorOccured(); };
  if (!isUp()) {
    ledger->flagSettled(isUp);
    return;
  }
  const Time now = ledger->now();
  const bool commandFailed = ledger->onWorker() && !ledger->isHandling() && trackedFailed();
  const std::string text = failureText_ ? failureText_() : std::string();
  RpcFailure failure = takeRpcFailure().value_or(RpcFailure{0, "the RPC failed"});
  if (failureText_) failure.text = text;
  std::string request;
  if (recorder_ && commandFailed) request = ledger->oldestOpenRequest(largestRequestShown);
  ledger->flagRose(commandFailed, failure.text, failure.code);
  if (recorder_) {
    if (commandFailed) {
      recorder_->freeze(ledger->lastFailure(), text, request);
    } else {
      recorder_->freeze(std::nullopt, noneFailed);
    }
  }
  // Last, so that whoever sees the kit stopped finds the failure in the books.
  ledger->flagSettled(isUp, now);
}

void Kit::clearAndGoOn() {
  underThreadLock([&] {
    // The worker cannot take a command meanwhile: the one it holds, if any, it took while stopped.
    // Waking it makes it let that one go, as long as it has looked at the flag already.
    if (const std::optional<U64> held = underWay()) ledger_->takenWhileStopped(*held);
    status_->errorOccuredIs(false);
  });
  wakeWorker();
}

void Kit::wakeWorker() {
  if (!manager_ || !manager_->threadCondition()) return;
  // A wake-up while the flag is set costs a command. A worker that sleeps now cannot raise it
  // before it has the lock.
  underThreadLock([&] {
    if (!status_->errorOccured()) manager_->threadCondition()->signal();
  });
}

void Kit::tick() {
  const std::optional<Time> since = ledger_->stoppedSince();
  if (!since) {
    const bool waiting = underThreadLock([&] {
      underWay();
      return pendingQueue_->cmdBatchs() != 0;  // tracked or not
    });
    if (waiting || ledger_->openAnnounced() != 0) wakeWorker();
    return;
  }
  if (policy_.action == FailurePolicy::Action::clearAndGoOn &&
      ledger_->now() - *since >= policy_.pause) {
    clearAndGoOn();
  }
}

Status Kit::status() const {
  Status status;
  for (const auto& [name, watcher] : queues_) {
    status.queues[name] = {watcher->notifier()->cmdBatchs(), watcher->maximum()};
  }
  underThreadLock([&] { status.pending.now = pendingQueue_->cmdBatchs(); });
  status.pending.maximum = ledger_->openAnnouncedMaximum();
  status.lastFailure = ledger_->lastFailure();
  const std::optional<CommandReport> oldest = ledger_->oldestOpen();
  if (oldest) status.oldestAge = ledger_->now() - oldest->announced;
  if (!manager_ || !manager_->client()) return status;
  if (const std::optional<Time> since = ledger_->stoppedSince()) {
    status.worker = Status::Worker::stopped;
    status.stoppedSince = *since;
  } else if (oldest && underWay() == oldest->id) {
    status.worker = Status::Worker::inFlight;
    status.inFlight = oldest;
  } else {
    status.worker = Status::Worker::idle;
  }
  return status;
}

void Kit::dropWaiting() {
  for (auto group = config_->cmdConfigGroupIterator(); group; ++group) deleteAll(group.ptr());
  underThreadLock([&] {
    underWay();
    for (auto entry = pendingQueue_->cmdBatchIterator(); entry; ++entry) {
      const TrackedEntry* found = tracked(entry.cmdBatch());
      if (found) ledger_->discarded(found->id());
    }
    deleteAll(pendingQueue_);
  });
}

void Kit::closeBooks(const std::string& reason) {
  std::optional<U64> taken;
  // Kept until the books are closed: a command let go enters its end at once, before older ones.
  std::vector<Lumo::Ptr<GrpcCmd>> waiting;
  const auto takeOut = [&](const auto& queue) {
    for (auto entry = queue->cmdBatchIterator(); entry; ++entry)
      waiting.push_back(entry.cmdBatch());
    deleteAll(queue);
  };
  underThreadLock([&] {
    if (!stopped()) taken = underWay();
    takeOut(pendingQueue_);
    // Under threadLock, as if moved, so that these wait for their end, too.
    for (auto group = config_->cmdConfigGroupIterator(); group; ++group) takeOut(group.ptr());
  });
  ledger_->close(taken, reason);
}

void Kit::leaveProcess(int exitStatus) {
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  _exit(exitStatus);
}

}  // namespace Norv::Agent
