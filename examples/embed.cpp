// The library in an agent's own program: a queue, a typed command, its response.
// Start a daemon first, for one: bessd-standin. Usage: example_embed [PORT]

#include <unistd.h>

#include <iostream>
#include <string>

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

int main(int argc, char** argv) {
  const U16 port = argc > 1 ? static_cast<U16>(std::stoi(argv[1])) : 10514;
  auto host = ConnectionConfig::ConnectionConfigIs(port, "localhost");
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
  if (!ended) std::cerr << "no daemon answered at localhost:" << port << " within 5 seconds\n";
  if (status->errorOccured()) {
    std::cerr << "the call failed; set LUMO_TRACE=GrpcClient/0 to see why\n";
  }
  // The worker cannot be told to stop: leave the process without destroying the manager.
  std::cout.flush();
  _exit(done ? 0 : 1);
}
