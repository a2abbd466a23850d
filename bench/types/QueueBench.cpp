// The indexed queue beside std::deque<std::shared_ptr<...>>: append a command and take one from the
// head, at different depths. And the cost of announcing one of many named queues.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <deque>
#include <memory>

#include <Norv/CmdGroup.h>
#include <Norv/ConnectionsMgr.h>
#include <bess/pb/service.pb.h>

#include "../SecondThread.h"

namespace {

using namespace Norv;

Lumo::Ptr<GrpcCmd> command() {
  return grpcCmdFactory(nullptr, getVersion);
}

// One command more, one command fewer; the queue stays `depth` long.
void QueueAppendAndTake(benchmark::State& state) {
  const auto queue = CmdGroup::CmdGroupIs();
  const Lumo::Ptr<GrpcCmd> cmd = command();
  for (int64_t i = 0; i < state.range(0); ++i) queue->cmdBatchEnq(cmd);
  for (auto _ : state) {
    queue->cmdBatchEnq(cmd);
    benchmark::DoNotOptimize(queue->cmdBatchDeq());
  }
}
BENCHMARK(QueueAppendAndTake)->Arg(10)->Arg(10000);
// Filling it takes a thousand times as long as this.
BENCHMARK(QueueAppendAndTake)->Arg(10000000)->Iterations(1000000);

// The same with a standard container. `Cmd` has the size of a command.
struct Cmd {
  char bytes[sizeof(GrpcCmd)];
};
void DequeAppendAndTake(benchmark::State& state) {
  std::deque<std::shared_ptr<Cmd>> queue;
  const auto cmd = std::make_shared<Cmd>();
  for (int64_t i = 0; i < state.range(0); ++i) queue.push_back(cmd);
  for (auto _ : state) {
    queue.push_back(cmd);
    benchmark::DoNotOptimize(std::shared_ptr<Cmd>(std::move(queue.front())));
    queue.pop_front();
  }
}
BENCHMARK(DequeAppendAndTake)->Arg(10)->Arg(10000);
BENCHMARK(DequeAppendAndTake)->Arg(10000000)->Iterations(1000000);

// So many appended, then all of them taken, as the manager moves a batch.
void QueueBatch(benchmark::State& state) {
  const auto queue = CmdGroup::CmdGroupIs();
  const Lumo::Ptr<GrpcCmd> cmd = command();
  for (auto _ : state) {
    for (int64_t i = 0; i < state.range(0); ++i) queue->cmdBatchEnq(cmd);
    for (int64_t i = 0; i < state.range(0); ++i) benchmark::DoNotOptimize(queue->cmdBatchDeq());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(QueueBatch)->Arg(100)->Arg(1000)->Arg(100000);

void DequeBatch(benchmark::State& state) {
  std::deque<std::shared_ptr<Cmd>> queue;
  const auto cmd = std::make_shared<Cmd>();
  for (auto _ : state) {
    for (int64_t i = 0; i < state.range(0); ++i) queue.push_back(cmd);
    for (int64_t i = 0; i < state.range(0); ++i) {
      benchmark::DoNotOptimize(std::shared_ptr<Cmd>(std::move(queue.front())));
      queue.pop_front();
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(DequeBatch)->Arg(100)->Arg(1000)->Arg(100000);

// The whole life of a waiting command and its request: made, appended, taken, destroyed.
void QueueLifeOfACommand(benchmark::State& state) {
  const auto make = [] { return grpcCmdFactory(new bess::pb::EmptyRequest(), getVersion); };
  const auto queue = CmdGroup::CmdGroupIs();
  for (int64_t i = 0; i < state.range(0); ++i) queue->cmdBatchEnq(make());
  for (auto _ : state) {
    queue->cmdBatchEnq(make());
    benchmark::DoNotOptimize(queue->cmdBatchDeq());
  }
}
BENCHMARK(QueueLifeOfACommand)->Arg(10)->Arg(1000000);

struct CmdWithRequest {
  virtual ~CmdWithRequest() = default;
  std::unique_ptr<google::protobuf::Message> request = std::make_unique<bess::pb::EmptyRequest>();
  GrpcRequestType type = getVersion;
};
void DequeLifeOfACommand(benchmark::State& state) {
  const auto make = [] { return std::make_shared<CmdWithRequest>(); };
  std::deque<std::shared_ptr<CmdWithRequest>> queue;
  for (int64_t i = 0; i < state.range(0); ++i) queue.push_back(make());
  for (auto _ : state) {
    queue.push_back(make());
    benchmark::DoNotOptimize(std::shared_ptr<CmdWithRequest>(std::move(queue.front())));
    queue.pop_front();
  }
}
BENCHMARK(DequeLifeOfACommand)->Arg(10)->Arg(1000000);

// Announcing one of so many named queues, in simulation; the batch is one command.
void AnnounceOneOfManyQueues(benchmark::State& state) {
  setenv("SIMULATION_NORV", "1", 1);
  const auto config = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("all");
  for (int64_t i = 0; i < state.range(0); ++i) {
    config->cmdConfigGroupIs(CmdConfigGroup::CmdConfigGroupIs("queue" + std::to_string(i)));
  }
  const auto pending = CmdGroup::CmdGroupIs();
  const auto manager = ConnectionsMgr::ConnectionsMgrIs(
      ConnectionConfig::ConnectionConfigIs(1, "localhost"), config, pending,
      GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs());
  const auto queue = config->cmdConfigGroup("queue" + std::to_string(state.range(0) / 2));
  const Lumo::Ptr<GrpcCmd> cmd = command();
  for (auto _ : state) {
    queue->cmdBatchEnq(cmd);
    queue->enqueueVersionInc(1);
    benchmark::DoNotOptimize(pending->cmdBatchDeq());
  }
}
BENCHMARK(AnnounceOneOfManyQueues)->Arg(10)->Arg(10000);

}  // namespace
