// What the agent's kit adds to a command. First the CPU time of a command on the whole road with
// the kit around the manager, beside the same without it: the same server, taken in turns. Then a
// batch announced at once and taken from the pending queue, without the RPC, in growing sizes: the
// time per command must stay.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include <Norv/Agent/Kit.h>

#include "../Pair.h"
#include "Road.h"

namespace {

using Clock = std::chrono::steady_clock;
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
    while (!last.try_acquire_for(std::chrono::milliseconds(5))) {
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
  std::binary_semaphore last{0};
};

// CPU microseconds of each command of a batch.
template <class Agent>
double cpuOfBatch(Agent& agent, U64 commands) {
  const double start = road::cpuSeconds();
  agent.send(commands);
  agent.wait();
  return (road::cpuSeconds() - start) * 1e6 / static_cast<double>(commands);
}

void compare(U16 port, U64 rounds, U64 commands) {
  // Their workers go on to the end of the process.
  auto& bare = *new road::Agent(port);
  auto& with = *new KitAgent(port);
  cpuOfBatch(bare, commands / 10 + 1);
  cpuOfBatch(with, commands / 10 + 1);
  for (U64 i = 0; i < rounds; ++i) {
    const double peer = cpuOfBatch(bare, commands);
    bench::pair("kit_cpu", cpuOfBatch(with, commands), peer);
  }
  std::fflush(stdout);
}

// Seconds to queue, announce and take a batch, answered by hand.
double secondsOfBatch(U64 commands) {
  const auto config = Norv::GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("bench");
  const auto queue = Norv::CmdConfigGroup::CmdConfigGroupIs("main");
  const auto pending = Norv::CmdGroup::CmdGroupIs();
  const auto status = Norv::GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  config->cmdConfigGroupIs(queue);
  Norv::Agent::Kit kit(config, pending, status);
  const auto manager = Norv::ConnectionsMgr::ConnectionsMgrIs(
      Norv::ConnectionConfig::ConnectionConfigIs(1, "x"), config, pending, status);
  kit.managerIs(manager);
  std::atomic<U64> done{0};
  road::pb::VersionResponse response;
  const Clock::time_point start = Clock::now();
  for (U64 i = 0; i < commands; ++i) {
    queue->cmdBatchEnq(Lumo::allocate<Tracked>(kit.ledger(), &done));
  }
  queue->enqueueVersionInc(1);
  while (const Lumo::Ptr<Norv::GrpcCmd> command = pending->cmdBatchDeq()) {
    command->processResponse(&response);
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void grow(U64 few) {
  setenv("SIMULATION_NORV", "1", 1);
  Lumo::ActivityLockAnchor activity;
  secondsOfBatch(1000);
  for (int turn = 0; turn < 5; ++turn) {
    const double peer = secondsOfBatch(few);
    bench::pair("kit_growth", secondsOfBatch(10 * few) * 1e3, peer * 1e3);
  }
}

}  // namespace

// The workers cannot be told to stop: leave without destructors.
int main() {
  const U16 port = road::startServer();
  compare(port, bench::quick() ? 5 : 21, bench::quick() ? 1000 : 5000);
  grow(bench::quick() ? 10000 : 100000);
  std::fflush(nullptr);
  _exit(0);
}
