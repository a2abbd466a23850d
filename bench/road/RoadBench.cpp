// Commands per second on their whole road, through named queue, manager, pending queue, worker and
// handler, beside a hand-written loop of asynchronous stub calls and beside the synchronous stub:
// the same server in the same process, the same kind of channel, the same request. And the road
// without the RPC.

#include <benchmark/benchmark.h>
#include <grpcpp/grpcpp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include <Lumo/Lock.h>
#include <Norv/ConnectionsMgr.h>
#include <bess/pb/service.grpc.pb.h>

namespace {

using namespace Norv;
namespace pb = bess::pb;

class Version : public pb::BESSControl::Service {
  grpc::Status GetVersion(grpc::ServerContext*, const pb::EmptyRequest*,
                          pb::VersionResponse* response) override {
    response->set_version("bench");
    return grpc::Status::OK;
  }
};

struct Server {
  Server() {
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(&service);
    server = builder.BuildAndStart();
  }
  std::shared_ptr<grpc::Channel> channel() const {
    return grpc::CreateChannel("127.0.0.1:" + std::to_string(port),
                               grpc::InsecureChannelCredentials());
  }
  Version service;
  int port = 0;
  std::unique_ptr<grpc::Server> server;
};

Server& server() {
  static Server* const instance = new Server;
  return *instance;
}

// CPU time of the whole process, server included, in seconds.
double cpuSeconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) { return time.tv_sec + time.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

class Counting : public GrpcCmd {
 public:
  explicit Counting(std::atomic<U64>* done)
      : GrpcCmd(new pb::EmptyRequest(), getVersion), done_(done) {}
  void processResponse(google::protobuf::Message*) override {
    done_->fetch_add(1, std::memory_order_release);
  }

 private:
  std::atomic<U64>* const done_;
};

struct Agent {
  explicit Agent(U16 port) {
    config->cmdConfigGroupIs(queue);
    manager = ConnectionsMgr::ConnectionsMgrIs(
        ConnectionConfig::ConnectionConfigIs(port, "127.0.0.1"), config, pending,
        GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs());
  }
  void send(U64 count) {
    Lumo::ActivityLockAnchor activity;
    for (U64 i = 0; i < count; ++i) queue->cmdBatchEnq(Lumo::allocate<Counting>(&done));
    queue->enqueueVersionInc(1);
  }
  void waitFor(U64 count) {
    while (done.load(std::memory_order_acquire) < count) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      Lumo::LockAnchor anchor(manager->threadLock());
      manager->threadCondition()->signal();
    }
  }
  Lumo::Ptr<GrpcGlobalCmdConfig> config = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("bench");
  Lumo::Ptr<CmdConfigGroup> queue = CmdConfigGroup::CmdConfigGroupIs("main");
  Lumo::Ptr<CmdGroup> pending = CmdGroup::CmdGroupIs();
  Lumo::Ptr<ConnectionsMgr> manager;
  std::atomic<U64> done{0};
};

// A connected manager cannot be destroyed: one serves all runs.
Agent& agent() {
  static Agent* const instance = new Agent(static_cast<U16>(server().port));
  return *instance;
}

void report(benchmark::State& state, U64 commands, double cpu) {
  state.SetItemsProcessed(static_cast<int64_t>(commands));
  state.counters["cpu_us_per_command"] = cpu * 1e6 / static_cast<double>(commands);
}

void RoadOfCommands(benchmark::State& state) {
  const U64 batch = static_cast<U64>(state.range(0));
  const double cpu = cpuSeconds();
  U64 sent = agent().done;
  const U64 before = sent;
  for (auto _ : state) {
    agent().send(batch);
    agent().waitFor(sent += batch);
  }
  report(state, sent - before, cpuSeconds() - cpu);
}
BENCHMARK(RoadOfCommands)->Arg(1000)->Arg(100000)->UseRealTime()->Unit(benchmark::kMillisecond);

void HandWrittenAsynchronousLoop(benchmark::State& state) {
  const auto stub = pb::BESSControl::NewStub(server().channel());
  grpc::CompletionQueue queue;
  const U64 batch = static_cast<U64>(state.range(0));
  const double cpu = cpuSeconds();
  U64 sent = 0;
  for (auto _ : state) {
    for (U64 i = 0; i < batch; ++i, ++sent) {
      grpc::ClientContext context;
      pb::VersionResponse response;
      grpc::Status status;
      const auto reader = stub->AsyncGetVersion(&context, pb::EmptyRequest(), &queue);
      reader->Finish(&response, &status, &response);
      void* tag = nullptr;
      bool ok = false;
      queue.Next(&tag, &ok);
      benchmark::DoNotOptimize(status.ok());
    }
  }
  report(state, sent, cpuSeconds() - cpu);
}
BENCHMARK(HandWrittenAsynchronousLoop)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);

void SynchronousStub(benchmark::State& state) {
  const auto stub = pb::BESSControl::NewStub(server().channel());
  const U64 batch = static_cast<U64>(state.range(0));
  const double cpu = cpuSeconds();
  U64 sent = 0;
  for (auto _ : state) {
    for (U64 i = 0; i < batch; ++i, ++sent) {
      grpc::ClientContext context;
      pb::VersionResponse response;
      benchmark::DoNotOptimize(stub->GetVersion(&context, pb::EmptyRequest(), &response).ok());
    }
  }
  report(state, sent, cpuSeconds() - cpu);
}
BENCHMARK(SynchronousStub)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);

// What the library adds to an RPC, without the RPC: announced in batches, moved, taken; the
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

// The worker cannot be told to stop: leave without destructors.
int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  std::fflush(nullptr);
  _exit(0);
}
