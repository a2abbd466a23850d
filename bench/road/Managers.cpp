// Several managers in one process, each to a server of its own, beside as many threads that call
// stubs: microseconds of a command of all together. And a command through ten named queues, beside
// one. Also what a manager that does nothing takes, and how even the shares are.

#include <algorithm>
#include <fstream>
#include <thread>

#include "../Pair.h"
#include "Road.h"

namespace {

using Clock = std::chrono::steady_clock;

double microsecondsSince(Clock::time_point start, U64 commands) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count() /
         static_cast<double>(commands);
}

// From /proc/self/status: KiB, or a number.
U64 ofThisProcess(const std::string& what) {
  std::ifstream file("/proc/self/status");
  std::string line;
  while (std::getline(file, line)) {
    if (line.starts_with(what + ":")) return std::stoull(line.substr(what.size() + 1));
  }
  return 0;
}

// All start at once; each has as many commands. `first`: the part of the time after which the first
// of them is through.
double manyManagers(std::vector<std::unique_ptr<road::Agent>>& agents, U64 each, double* first) {
  const auto start = Clock::now();
  for (auto& agent : agents) agent->send(each);
  for (auto& agent : agents) agent->wait();
  const double all = microsecondsSince(start, each * agents.size());
  std::vector<double> ends;
  for (auto& agent : agents) {
    ends.push_back(std::chrono::duration<double>(agent->last.releasedAt() - start).count());
  }
  const auto [earliest, latest] = std::minmax_element(ends.begin(), ends.end());
  *first = *earliest / *latest;
  return all;
}

double manyStubs(const std::vector<U16>& ports, U64 each) {
  std::vector<std::unique_ptr<road::pb::BESSControl::Stub>> stubs;
  for (const U16 port : ports) {
    stubs.push_back(road::pb::BESSControl::NewStub(road::channelTo(port)));
    grpc::ClientContext context;
    context.set_wait_for_ready(true);
    road::pb::VersionResponse response;
    if (!stubs.back()->GetVersion(&context, road::pb::EmptyRequest(), &response).ok()) std::abort();
  }
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (auto& stub : stubs) {
    threads.emplace_back([&stub, each] {
      for (U64 i = 0; i < each; ++i) {
        grpc::ClientContext context;
        road::pb::VersionResponse response;
        if (!stub->GetVersion(&context, road::pb::EmptyRequest(), &response).ok()) std::abort();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return microsecondsSince(start, each * ports.size());
}

void managers(const std::vector<U16>& ports, U64 commands) {
  const std::size_t number = ports.size();
  const U64 memory = ofThisProcess("VmRSS"), threads = ofThisProcess("Threads");
  std::vector<std::unique_ptr<road::Agent>> agents;
  for (const U16 port : ports) agents.push_back(std::make_unique<road::Agent>(port));
  double first = 0;
  manyManagers(agents, 10, &first);
  // The process starts what gRPC needs once with the first.
  const std::string name = number == 1 ? "1 manager, with what gRPC starts once: takes"
                                       : std::to_string(number) + " managers: each takes";
  std::printf(
      "%s %llu KiB and %.2f threads when idle", name.c_str(),
      (ofThisProcess("VmRSS") - memory) / number,
      static_cast<double>(ofThisProcess("Threads") - threads) / static_cast<double>(number));
  const std::string key = "managers_" + std::to_string(number);
  std::vector<std::pair<double, double>> turns;
  std::vector<double> firsts;
  for (int turn = 0; turn < (bench::quick() ? 3 : 11); ++turn) {
    const double peer = manyStubs(ports, commands / number);
    turns.emplace_back(manyManagers(agents, commands / number, &first), peer);
    firsts.push_back(first);
  }
  std::printf("; the first is through after %.2f of the time\n", road::median(firsts));
  for (const auto& [here, peer] : turns) bench::pair(key.c_str(), here, peer);
  // Their workers go on to the end of the process.
  for (auto& agent : agents) static_cast<void>(agent.release());
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
    const double peer = one.send(commands);
    bench::pair("producers", ten.send(commands), peer);
  }
}

}  // namespace

int main() {
  // Before this process has a thread, as each is a fork of it.
  std::vector<U16> ports;
  for (int i = 0; i < 64; ++i) ports.push_back(road::startServer());
  const U64 commands = bench::quick() ? 2000 : 20000;
  for (const std::size_t number : {1, 8, 64}) {
    managers({ports.begin(), ports.begin() + static_cast<std::ptrdiff_t>(number)}, commands);
  }
  producers(ports.front(), commands / 4);
  std::fflush(nullptr);
  _exit(0);
}
