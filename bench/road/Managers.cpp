// Several managers in one process, each to a server of its own, beside as many threads that call
// stubs: microseconds of a command of all together, how even the shares are, and what each takes
// when it is idle. And a command through ten named queues, beside one.

#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <latch>
#include <thread>

#include "../Pair.h"
#include "Road.h"

namespace {

using Clock = std::chrono::steady_clock;
using Ports = std::vector<U16>;
using Agents = std::vector<std::unique_ptr<road::Agent>>;
using Stubs = std::vector<std::unique_ptr<road::pb::BESSControl::Stub>>;

double microsecondsSince(Clock::time_point start, U64 commands) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count() /
         static_cast<double>(commands);
}

// What commands of several at a time took.
struct Rate {
  double each;    // microseconds of a command, of all together
  double uneven;  // the time of the last that was through, over that of the first
};

Rate rateOf(Clock::time_point start, U64 commands, const std::vector<Clock::time_point>& ends) {
  const double all = microsecondsSince(start, commands);
  const auto [earliest, latest] = std::minmax_element(ends.begin(), ends.end());
  return {all, (*latest - start) / std::chrono::duration<double>(*earliest - start)};
}

// A command of each, so that all are connected.
Agents agentsTo(const Ports& ports) {
  Agents agents;
  for (const U16 port : ports) agents.push_back(std::make_unique<road::Agent>(port));
  for (auto& agent : agents) agent->send(1);
  for (auto& agent : agents) agent->wait();
  return agents;
}

void callOf(road::pb::BESSControl::Stub& stub, bool waitForReady = false) {
  grpc::ClientContext context;
  context.set_wait_for_ready(waitForReady);
  road::pb::VersionResponse response;
  if (!stub.GetVersion(&context, road::pb::EmptyRequest(), &response).ok()) std::abort();
}

Stubs stubsTo(const Ports& ports) {
  Stubs stubs;
  for (const U16 port : ports) {
    stubs.push_back(road::pb::BESSControl::NewStub(road::channelTo(port)));
    callOf(*stubs.back(), true);
  }
  return stubs;
}

// All start at once; each has as many commands.
Rate manyManagers(Agents& agents, U64 each) {
  const auto start = Clock::now();
  for (auto& agent : agents) agent->send(each);
  for (auto& agent : agents) agent->wait();
  std::vector<Clock::time_point> ends;
  for (auto& agent : agents) ends.push_back(agent->last.releasedAt());
  return rateOf(start, each * agents.size(), ends);
}

Rate manyStubs(const Stubs& stubs, U64 each) {
  std::vector<Clock::time_point> ends(stubs.size());
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < stubs.size(); ++i) {
    threads.emplace_back([&stub = *stubs[i], each, &end = ends[i]] {
      for (U64 call = 0; call < each; ++call) callOf(stub);
      end = Clock::now();
    });
  }
  for (std::thread& thread : threads) thread.join();
  return rateOf(start, each * stubs.size(), ends);
}

void managers(const Ports& ports, U64 commands) {
  Agents agents = agentsTo(ports);
  const std::string key = "managers_" + std::to_string(ports.size());
  for (int turn = 0; turn < (bench::quick() ? 3 : 11); ++turn) {
    const Stubs stubs = stubsTo(ports);
    const U64 each = commands / ports.size();
    const auto [here, peer] = bench::inTurn(
        turn, [&] { return manyManagers(agents, each); }, [&] { return manyStubs(stubs, each); });
    bench::pair(key.c_str(), here.each, peer.each);
    if (ports.size() > 1) bench::pair((key + "_uneven").c_str(), here.uneven, peer.uneven);
  }
  // Their workers go on to the end of the process.
  for (auto& agent : agents) static_cast<void>(agent.release());
}

// What a process takes, or each of several in it.
struct Taken {
  double memory;  // KiB
  double threads;
};

Taken ofThisProcess() {
  std::ifstream file("/proc/self/status");
  Taken taken{};
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("VmRSS:")) taken.memory = std::stod(line.substr(6));
    if (line.starts_with("Threads:")) taken.threads = std::stod(line.substr(8));
  }
  return taken;
}

// What the first takes that is made in a process, with what gRPC starts once for all, and each of
// the others.
struct Share {
  Taken first;
  Taken other;
};

Taken between(const Taken& before, const Taken& after, std::size_t number) {
  const auto each = static_cast<double>(number);
  return {(after.memory - before.memory) / each, (after.threads - before.threads) / each};
}

// Of those that `make` makes to the ports, in a process of their own. This one has no thread yet.
template <typename Make>
Share shareOf(const Ports& ports, Make make) {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  const pid_t child = fork();
  if (child == 0) {
    const Ports others(ports.begin() + 1, ports.end());
    const Taken before = ofThisProcess();
    const auto first = make({ports.front()});
    const Taken withFirst = ofThisProcess();
    const auto all = make(others);
    const Share share{between(before, withFirst, 1),
                      between(withFirst, ofThisProcess(), others.size())};
    if (write(ends[1], &share, sizeof share) < 0) _exit(1);
    _exit(0);
  }
  close(ends[1]);
  Share share;
  if (read(ends[0], &share, sizeof share) != sizeof share) std::abort();
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return share;
}

// Each stub with a thread that has called and waits.
Stubs waitingStubsTo(const Ports& ports) {
  Stubs stubs = stubsTo(ports);
  std::latch called(static_cast<std::ptrdiff_t>(stubs.size()));
  for (auto& stub : stubs) {
    std::thread([&stub = *stub, &called] {
      callOf(stub);
      called.count_down();
      for (;;) pause();
    }).detach();
  }
  called.wait();
  return stubs;
}

void idle(const Ports& ports) {
  for (int turn = 0; turn < (bench::quick() ? 3 : 11); ++turn) {
    const auto [here, peer] = bench::inTurn(
        turn, [&] { return shareOf(ports, agentsTo); },
        [&] { return shareOf(ports, waitingStubsTo); });
    bench::pair("manager_first_memory", here.first.memory, peer.first.memory);
    bench::pair("manager_first_threads", here.first.threads, peer.first.threads);
    bench::pair("manager_memory", here.other.memory, peer.other.memory);
    bench::pair("manager_threads", here.other.threads, peer.other.threads);
  }
}

// The same commands, announced by so many queues in turn.
class Producers {
 public:
  Producers(U16 port, std::size_t number) : agent_(*new road::Agent(port)) {
    for (std::size_t i = 0; i < number; ++i) {
      queues_.push_back(Norv::CmdConfigGroup::CmdConfigGroupIs("queue" + std::to_string(i)));
      agent_.config->cmdConfigGroupIs(queues_.back());
    }
  }
  double send(U64 commands) {
    const auto start = Clock::now();
    {
      Lumo::ActivityLockAnchor activity;
      for (U64 i = 0; i + 1 < commands; ++i) {
        queues_[i % queues_.size()]->cmdBatchEnq(Lumo::allocate<road::Counting>(&agent_.done));
      }
      for (const auto& queue : queues_) queue->enqueueVersionInc(1);
    }
    agent_.send(1);
    agent_.wait();
    return microsecondsSince(start, commands);
  }

 private:
  road::Agent& agent_;
  std::vector<Lumo::Ptr<Norv::CmdConfigGroup>> queues_;
};

void producers(U16 port, U64 commands) {
  Producers ten(port, 10), one(port, 1);
  ten.send(100);
  one.send(100);
  for (int turn = 0; turn < (bench::quick() ? 5 : 21); ++turn) {
    const auto [here, peer] = bench::inTurn(
        turn, [&] { return ten.send(commands); }, [&] { return one.send(commands); });
    bench::pair("producers", here, peer);
  }
}

}  // namespace

int main() {
  // Before this process has a thread, as each is a fork of it.
  Ports ports;
  for (int i = 0; i < 64; ++i) ports.push_back(road::startServer());
  idle(ports);
  const U64 commands = bench::quick() ? 2000 : 20000;
  for (const std::size_t number : {1, 8, 64}) {
    managers({ports.begin(), ports.begin() + static_cast<std::ptrdiff_t>(number)}, commands);
  }
  producers(ports.front(), commands / 4);
  std::fflush(nullptr);
  _exit(0);
}
