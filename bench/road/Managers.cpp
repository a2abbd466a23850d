// Several managers in one process, each to a server of its own, beside as many threads that call
// stubs: microseconds of a command of all together. And a command through ten named queues, beside
// one. Also what a manager that does nothing takes, and how even the shares are.

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

// All start at once; each has as many commands.
double manyManagers(std::vector<std::unique_ptr<road::Agent>>& agents, U64 each, double* evenness) {
  const auto start = Clock::now();
  for (auto& agent : agents) agent->send(each);
  agents.front()->wait();
  // What the others had done when the first was through.
  U64 least = each;
  for (auto& agent : agents) least = std::min<U64>(least, agent->done.exchange(0));
  *evenness = static_cast<double>(least) / static_cast<double>(each);
  for (std::size_t i = 1; i < agents.size(); ++i) agents[i]->wait();
  for (auto& agent : agents) agent->done = 0;
  return microsecondsSince(start, each * agents.size());
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
  double evenness = 0;
  manyManagers(agents, 10, &evenness);
  std::printf(
      "%zu managers: each takes %llu KiB and %.2f threads when idle", number,
      (ofThisProcess("VmRSS") - memory) / number,
      static_cast<double>(ofThisProcess("Threads") - threads) / static_cast<double>(number));
  const std::string key = "managers_" + std::to_string(number);
  std::vector<std::pair<double, double>> turns;
  for (int turn = 0; turn < (bench::quick() ? 3 : 11); ++turn) {
    const double peer = manyStubs(ports, commands / number);
    turns.emplace_back(manyManagers(agents, commands / number, &evenness), peer);
  }
  std::printf("; when the first is through, the last has done %.2f of its share\n", evenness);
  for (const auto& [here, peer] : turns) bench::pair(key.c_str(), here, peer);
  // Their workers go on to the end of the process.
  for (auto& agent : agents) agent.release();
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
