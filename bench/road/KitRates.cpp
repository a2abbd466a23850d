// What the agent's kit adds to a command. First the CPU time of a command on the whole road with
// the kit around the manager, beside the same without it: the same server, taken in turns, in small
// batches and in one of a million. Then a million announced at once and taken from the pending
// queue, without the RPC, with the kit and without, and in growing sizes: the time per command must
// stay.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <vector>

#include <Norv/Agent/Kit.h>

#include "../Pair.h"
#include "Road.h"

namespace {

using Tracked = Norv::Agent::Tracked<road::Counting>;

// A small agent with the kit. A connected manager cannot be destroyed: it lives until the process
// ends.
struct KitAgent {
  explicit KitAgent(U16 port) {
    config->cmdConfigGroupIs(queue);
    manager = Norv::ConnectionsMgr::ConnectionsMgrIs(
        Norv::ConnectionConfig::ConnectionConfigIs(port, "127.0.0.1"), config, pending, status);
    kit.managerIs(manager);
  }
  void send(U64 count) {
    Lumo::ActivityLockAnchor activity;
    for (U64 i = 1; i < count; ++i) {
      queue->cmdBatchEnq(Lumo::allocate<Tracked>(kit.ledger(), &done));
    }
    queue->cmdBatchEnq(Lumo::allocate<Tracked>(kit.ledger(), &done, &last));
    queue->enqueueVersionInc(1);
  }
  void wait() {
    while (!last.tryAcquireFor(std::chrono::milliseconds(5))) {
      Lumo::ActivityLockAnchor activity;
      kit.tick();
    }
  }
  Lumo::Ptr<Norv::GrpcGlobalCmdConfig> config =
      Norv::GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("bench");
  Lumo::Ptr<Norv::CmdConfigGroup> queue = Norv::CmdConfigGroup::CmdConfigGroupIs("main");
  Lumo::Ptr<Norv::CmdGroup> pending = Norv::CmdGroup::CmdGroupIs();
  Lumo::Ptr<Norv::GrpcErrorHandlingStatus> status =
      Norv::GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  Norv::Agent::Kit kit{config, pending, status};
  Lumo::Ptr<Norv::ConnectionsMgr> manager;
  std::atomic<U64> done{0};
  bench::Signal last;
};

// CPU microseconds of each command of a batch.
template <class Agent>
double cpuOfBatch(Agent& agent, U64 commands) {
  const double start = road::cpuSeconds();
  agent.send(commands);
  agent.wait();
  return (road::cpuSeconds() - start) * 1e6 / static_cast<double>(commands);
}

void compare(const char* key, U16 port, int turns, U64 commands) {
  // Their workers go on to the end of the process.
  auto& bare = *new road::Agent(port);
  auto& with = *new KitAgent(port);
  cpuOfBatch(bare, commands / 10 + 1);
  cpuOfBatch(with, commands / 10 + 1);
  for (int turn = 0; turn < turns; ++turn) {
    const auto [here, peer] = bench::inTurn(
        turn, [&] { return cpuOfBatch(with, commands); },
        [&] { return cpuOfBatch(bare, commands); });
    bench::pair(key, here, peer);
  }
  std::fflush(stdout);
}

// CPU milliseconds to queue, announce and take a batch, answered by hand.
double cpuOfAnnouncement(bool withKit, U64 commands) {
  const auto config = Norv::GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("bench");
  const auto queue = Norv::CmdConfigGroup::CmdConfigGroupIs("main");
  const auto pending = Norv::CmdGroup::CmdGroupIs();
  const auto status = Norv::GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  config->cmdConfigGroupIs(queue);
  std::optional<Norv::Agent::Kit> kit;
  if (withKit) kit.emplace(config, pending, status);
  const auto manager = Norv::ConnectionsMgr::ConnectionsMgrIs(
      Norv::ConnectionConfig::ConnectionConfigIs(1, "x"), config, pending, status);
  if (kit) kit->managerIs(manager);
  std::atomic<U64> done{0};
  road::pb::VersionResponse response;
  const double start = road::cpuSeconds();
  for (U64 i = 0; i < commands; ++i) {
    if (kit) {
      queue->cmdBatchEnq(Lumo::allocate<Tracked>(kit->ledger(), &done));
    } else {
      queue->cmdBatchEnq(Lumo::allocate<road::Counting>(&done));
    }
  }
  queue->enqueueVersionInc(1);
  while (const Lumo::Ptr<Norv::GrpcCmd> command = pending->cmdBatchDeq()) {
    command->processResponse(&response);
  }
  return (road::cpuSeconds() - start) * 1e3;
}

void announce() {
  setenv("SIMULATION_NORV", "1", 1);
  Lumo::ActivityLockAnchor activity;
  cpuOfAnnouncement(true, 1000);
  for (int turn = 0; turn < 5; ++turn) {
    const double few = cpuOfAnnouncement(true, 100000);
    const auto [many, bare] = bench::inTurn(
        turn, [] { return cpuOfAnnouncement(true, 1000000); },
        [] { return cpuOfAnnouncement(false, 1000000); });
    bench::pair("kit_growth", many, few);
    bench::pair("kit_announcement", many, bare);
  }
}

}  // namespace

// The workers cannot be told to stop: leave without destructors.
int main() {
  const U16 port = road::startServer();
  compare("kit_cpu", port, bench::quick() ? 5 : 21, bench::quick() ? 1000 : 5000);
  if (!bench::quick()) {
    compare("kit_queue", port, 2, 1000000);
    announce();
  }
  std::fflush(nullptr);
  _exit(0);
}
