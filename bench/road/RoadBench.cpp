// What the library adds to an RPC, without the RPC. The rate with the RPC, beside stubs called by
// hand, is road_rates' business.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include <Lumo/Lock.h>
#include <Norv/AsyncClientCall.h>
#include <Norv/GrpcClient.h>

#include "Road.h"

namespace {

using namespace road;

// What a loop written by hand needs for each call as well: a context, a status, a response.
void RecordAlone(benchmark::State& state) {
  for (auto _ : state) {
    AsyncClientCall<pb::VersionResponse> record;
    benchmark::DoNotOptimize(record.response);
  }
}
BENCHMARK(RecordAlone);

// Announced in batches, moved, taken, dispatched as far as the call itself, completed: the record
// of the call made and freed, the response handed over under the activity lock.
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
  GrpcClient client(grpc::CreateChannel("localhost:1", grpc::InsecureChannelCredentials()), pending,
                    GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs(), &lock, &condition);
  for (auto _ : state) {
    for (const auto& command : commands) queue->cmdBatchEnq(command);
    queue->enqueueVersionInc(1);
    for (U64 i = 0; i < batch; ++i) {
      const Lumo::Ptr<GrpcCmd> command = client.getCmdFromQueue();
      benchmark::DoNotOptimize(dynamic_cast<pb::EmptyRequest*>(command->request()));
      client.processResponse(command, new AsyncClientCall<pb::VersionResponse>());
    }
  }
  state.counters["ns_per_command"] =
      benchmark::Counter(static_cast<double>(state.iterations() * batch) / 1e9,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  setenv("SIMULATION_NORV", "1", 1);
}
BENCHMARK(RoadWithoutTheRpc)->Arg(100);

}  // namespace
