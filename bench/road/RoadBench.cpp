// What the library adds to an RPC, without the RPC. The rate with the RPC, beside stubs called by
// hand, is road_rates' business.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include <Lumo/Lock.h>

#include "Road.h"

namespace {

using namespace road;

// Announced in batches, moved, taken; the
// response handed over under the activity lock.
void RoadWithoutTheRpc(benchmark::State& state) {
  setenv("SIMULATION_NORV", "1", 1);
  const auto config = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("bench");
  const auto queue = CmdConfigGroup::CmdConfigGroupIs("main");
  config->cmdConfigGroupIs(queue);
  const auto pending = CmdGroup::CmdGroupIs();
  const auto manager = ConnectionsMgr::ConnectionsMgrIs(
      ConnectionConfig::ConnectionConfigIs(1, "x"), config, pending,
      GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs());
  unsetenv("SIMULATION_NORV");
  Lumo::Lock lock;
  Lumo::Condition condition;
  manager->threadLockIs(&lock);
  manager->threadConditionIs(&condition);
  std::atomic<U64> done{0};
  std::vector<Lumo::Ptr<GrpcCmd>> commands;
  const U64 batch = static_cast<U64>(state.range(0));
  for (U64 i = 0; i < batch; ++i) commands.push_back(Lumo::allocate<Counting>(&done));
  pb::VersionResponse response;
  for (auto _ : state) {
    for (const auto& command : commands) queue->cmdBatchEnq(command);
    queue->enqueueVersionInc(1);
    for (U64 i = 0; i < batch; ++i) {
      Lumo::Ptr<GrpcCmd> command;
      {
        Lumo::LockAnchor anchor(&lock, 0);
        command = pending->cmdBatchDeq();
      }
      Lumo::ActivityLockAnchor activity(0);
      command->processResponse(&response);
    }
  }
  state.counters["ns_per_command"] =
      benchmark::Counter(static_cast<double>(state.iterations() * batch) / 1e9,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  setenv("SIMULATION_NORV", "1", 1);
}
BENCHMARK(RoadWithoutTheRpc)->Arg(100);

}  // namespace
