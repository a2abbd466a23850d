// What the agent's kit adds to a command. First the CPU time of a command on the whole road with
// the kit around the manager, beside the same without it: the same server, taken in turns. Then a
// batch announced at once and taken from the pending queue, without the RPC, in growing sizes: the
// time per command must stay. Usage: road_kit [ROUNDS [COMMANDS [LARGEST BATCH]]].

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include <Norv/Agent/Kit.h>

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
  std::vector<double> bareCpu;
  std::vector<double> kitCpu;
  cpuOfBatch(bare, commands / 10 + 1);
  cpuOfBatch(with, commands / 10 + 1);
  for (U64 i = 0; i < rounds; ++i) {
    bareCpu.push_back(cpuOfBatch(bare, commands));
    kitCpu.push_back(cpuOfBatch(with, commands));
  }
  std::printf("CPU of a command: %.2f us without the kit, %.2f us with it; ratio %.3f\n",
              road::median(bareCpu), road::median(kitCpu),
              road::median(kitCpu) / road::median(bareCpu));
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

void grow(U64 largest) {
  setenv("SIMULATION_NORV", "1", 1);
  Lumo::ActivityLockAnchor activity;
  secondsOfBatch(1000);
  double before = 0;
  for (U64 commands = largest / 100; commands <= largest; commands *= 10) {
    const double seconds = secondsOfBatch(commands);
    std::printf("%8llu queued, announced and answered: %8.3f s, %6.0f ns each%s", commands, seconds,
                seconds * 1e9 / static_cast<double>(commands), before == 0 ? "\n" : "");
    if (before != 0) std::printf("; %.2f times the tenth of it\n", seconds / before);
    before = seconds;
  }
}

U64 argument(int argc, char** argv, int index, U64 fallback) {
  return argc > index ? std::strtoull(argv[index], nullptr, 10) : fallback;
}

}  // namespace

// The workers cannot be told to stop: leave without destructors.
int main(int argc, char** argv) {
  const U16 port = road::startServer();
  compare(port, argument(argc, argv, 1, 15), argument(argc, argv, 2, 5000));
  grow(argument(argc, argv, 3, 1000000));
  std::fflush(nullptr);
  _exit(0);
}
