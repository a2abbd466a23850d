// Commands per second and CPU time per command on the whole road, through named queue, manager,
// pending queue, worker and handler, beside a hand-written loop of asynchronous stub calls and
// beside the synchronous stub: the same server, the same kind of channel, the same request, taken
// in turns. Then the rate at which a long queue drains beside short ones, and the memory of a
// waiting command.

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

#include "../Pair.h"
#include "Road.h"

namespace {

using namespace road;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void asynchronousLoop(pb::BESSControl::Stub& stub, U64 commands) {
  grpc::CompletionQueue queue;
  for (U64 i = 0; i < commands; ++i) {
    grpc::ClientContext context;
    pb::VersionResponse response;
    grpc::Status status;
    const auto reader = stub.AsyncGetVersion(&context, pb::EmptyRequest(), &queue);
    reader->Finish(&response, &status, &response);
    void* tag = nullptr;
    bool ok = false;
    queue.Next(&tag, &ok);
    if (!ok || !status.ok()) std::abort();
  }
}

void synchronousLoop(pb::BESSControl::Stub& stub, U64 commands) {
  for (U64 i = 0; i < commands; ++i) {
    grpc::ClientContext context;
    pb::VersionResponse response;
    if (!stub.GetVersion(&context, pb::EmptyRequest(), &response).ok()) std::abort();
  }
}

// One way of sending, with what was measured of it.
struct Way {
  const char* name;
  std::function<void(U64)> send;
  std::vector<double> times;  // microseconds of a command
  std::vector<double> cpus;

  void round(U64 commands) {
    const double cpu = cpuSeconds();
    const Clock::time_point start = Clock::now();
    send(commands);
    times.push_back(secondsSince(start) * 1e6 / static_cast<double>(commands));
    cpus.push_back((cpuSeconds() - cpu) * 1e6 / static_cast<double>(commands));
  }
};

void compare(Agent& agent, U16 port, U64 rounds, U64 commands) {
  const auto asynchronous = pb::BESSControl::NewStub(channelTo(port));
  const auto synchronous = pb::BESSControl::NewStub(channelTo(port));
  Way ways[] = {
      {"manager",
       [&](U64 count) {
         agent.send(count);
         agent.wait();
       },
       {},
       {}},
      {"asynchronous", [&](U64 count) { asynchronousLoop(*asynchronous, count); }, {}, {}},
      {"synchronous", [&](U64 count) { synchronousLoop(*synchronous, count); }, {}, {}}};
  for (Way& way : ways) way.send(commands / 10 + 1);
  for (U64 i = 0; i < rounds; ++i) {
    for (U64 turn = 0; turn < std::size(ways); ++turn) {
      ways[(i + turn) % std::size(ways)].round(commands);
    }
  }
  // Each row beside the loop that is better in it.
  const Way& quicker = median(ways[1].times) < median(ways[2].times) ? ways[1] : ways[2];
  const Way& cheaper = median(ways[1].cpus) < median(ways[2].cpus) ? ways[1] : ways[2];
  std::printf("the better stub loop: %s by the clock, %s by CPU time\n", quicker.name,
              cheaper.name);
  for (U64 i = 0; i < rounds; ++i) {
    bench::pair("road", ways[0].times[i], quicker.times[i]);
    bench::pair("road_cpu", ways[0].cpus[i], cheaper.cpus[i]);
  }
}

// Microseconds of each command from when all are queued to the last answer.
double drainTime(Agent& agent, U64 commands) {
  const U64 end = agent.done + commands;
  agent.send(commands);
  const Clock::time_point start = Clock::now();
  const U64 left = end - agent.done;
  agent.wait();
  return secondsSince(start) * 1e6 / static_cast<double>(left);
}

void drain(Agent& agent) {
  for (int turn = 0; turn < 2; ++turn) {
    std::vector<double> few;
    for (int i = 0; i < 50; ++i) few.push_back(drainTime(agent, 1000));
    const double many = drainTime(agent, 1000000);
    for (int i = 0; i < 51; ++i) few.push_back(drainTime(agent, 1000));
    bench::pair("drain", many, median(few));
  }
}

// Heap bytes of a waiting command and its place in the pending queue, its request not counted.
void memory() {
  constexpr U64 count = 1000000;
  std::vector<google::protobuf::Message*> requests;
  requests.reserve(count);
  for (U64 i = 0; i < count; ++i) requests.push_back(new pb::EmptyRequest());
  const auto pending = CmdGroup::CmdGroupIs();
  const size_t before = mallinfo2().uordblks;
  for (auto* request : requests) pending->cmdBatchEnq(grpcCmdFactory(request, getVersion));
  const size_t bytes = mallinfo2().uordblks - before;
  std::printf("heap of a waiting command beyond its request: %.1f bytes\n",
              static_cast<double>(bytes) / count);
}

}  // namespace

// The worker cannot be told to stop: leave without destructors.
int main() {
  const U16 port = startServer();
  memory();
  Agent agent(port);
  compare(agent, port, bench::quick() ? 5 : 21, bench::quick() ? 1000 : 5000);
  if (!bench::quick()) drain(agent);
  std::fflush(nullptr);
  _exit(0);
}
