// The library in an agent's own program: a queue, a typed command, its response.
// Start a daemon first, for one: bessd-standin

#include <unistd.h>

#include <iostream>

#include <Lumo/MainLoop.h>
#include <Norv/ConnectionsMgr.h>
#include <Norv/TypedCmd.h>

using namespace Norv;

// A command for getVersion; the handlers run on the client's thread, under the activity lock.
class Ask : public TypedCmd<getVersion> {
 public:
  explicit Ask(bool* done) : done_(done) {}
  void onSuccess(const Response& response) override {
    std::cout << "the daemon says: " << response.version() << '\n';
    *done_ = true;
  }

 private:
  bool* const done_;
};

int main() {
  auto host = ConnectionConfig::ConnectionConfigIs(10514, "localhost");
  auto queues = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("queues");
  auto pending = CmdGroup::CmdGroupIs();
  auto status = GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  auto queue = CmdConfigGroup::CmdConfigGroupIs("main");
  queues->cmdConfigGroupIs(queue);
  auto manager = ConnectionsMgr::ConnectionsMgrIs(host, queues, pending, status);

  bool done = false;
  Lumo::MainLoop loop;
  loop.post([&] {
    queue->cmdBatchEnq(Lumo::allocate<Ask>(&done));
    queue->enqueueVersionInc(1);
  });
  // A wake-up may be lost, so the agent wakes the worker again while it waits.
  const auto wake = [&] {
    Lumo::LockAnchor anchor(manager->threadLock());
    manager->threadCondition()->signal();
    return done || status->errorOccured();
  };
  const bool ended = loop.runUntil(wake, std::chrono::seconds(5));
  if (!ended) std::cerr << "no daemon answered at localhost:10514 within 5 seconds\n";
  // The worker cannot be told to stop: leave the process without destroying the manager.
  std::cout.flush();
  _exit(done ? 0 : 1);
}
