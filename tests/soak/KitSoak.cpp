// An agent with the kit for a long time: random commands over queues that come and go, against a
// stand-in daemon that fails in many ways and is restarted. Prints a line of figures sixty times,
// or once a minute, and ends with 1 unless every command was accounted for and, in ten minutes or
// more, nothing has grown. Usage: kit_soak SECONDS FOLDER [SEED]; the flight recorder is in FOLDER.

#include <Standin/Server.h>
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <Norv/Agent/Kit.h>
#include <Norv/ConnectionsMgr.h>
#include <Norv/TypedCmd.h>

namespace {

using namespace Norv;
using Agent::Kit;
using Agent::Outcome;
using Agent::Tracked;
using Clock = std::chrono::steady_clock;

constexpr int fewestSamples = 60;  // else one a minute

// Not one that leaves a call without an answer: it would be the last, as the library has no
// deadline. And one undecodable reply at a time, as the record of such a call is never freed.
const char* const faults[] = {
    "kind=status every=50 code=14",         "kind=status rpc=createModule every=7 code=13",
    "kind=error every=20 code=12",          "kind=undecodable nth=20",
    "kind=too-large rpc=listModules nth=2", "kind=hang-up every=200",
    "kind=hang-up-after every=300",         "kind=delay every=10 ms=1",
};

class Daemon {
 public:
  Daemon() { start("127.0.0.1:0"); }

  int port() const { return port_; }

  // Another one in its place, empty.
  void restart() {
    server_.reset();
    start("127.0.0.1:" + std::to_string(port_));
  }

  // Every other turn without a fault.
  void failOtherwise(int turn) {
    server_->clearFaults();
    const auto which = static_cast<std::size_t>(turn / 2) % std::size(faults);
    if (turn % 2 == 0) server_->addFault(Standin::Fault::parse(faults[which]));
  }

 private:
  void start(const std::string& address) {
    Standin::Options options;
    options.listen = address;
    server_ = std::make_unique<Standin::Server>(options);
    port_ = server_->port();
  }

  std::unique_ptr<Standin::Server> server_;
  int port_ = 0;
};

// What is used of the machine, and what of the commands is not known.
struct Sample {
  long residentKib = 0;
  long descriptors = 0;
  long threads = 0;
  long long unaccounted = 0;
};

long entries(const char* folder) {
  long count = 0;
  DIR* const open = opendir(folder);
  while (readdir(open)) ++count;
  closedir(open);
  return count - 3;  // itself, its parent, and the one that reads
}

long residentKib() {
  std::ifstream statm("/proc/self/statm");
  long total = 0;
  long resident = 0;
  statm >> total >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

class Soak {
 public:
  Soak(const std::string& folder, unsigned seed) : random_(seed) {
    kit_.failurePolicyIs(
        {Agent::FailurePolicy::Action::clearAndGoOn, std::chrono::milliseconds(20)});
    kit_.flightRecorderIs(folder + "/recorder.skein", 1 << 20, 4);
    manager_ = ConnectionsMgr::ConnectionsMgrIs(
        ConnectionConfig::ConnectionConfigIs(static_cast<U16>(daemon_.port()), "127.0.0.1"),
        queues_, pending_, status_);
    kit_.managerIs(manager_);
  }

  // Some commands, and now and then something else.
  void step() {
    Lumo::ActivityLockAnchor activity;
    kit_.tick();
    if (waiting() > 2000) return;
    const Lumo::Name queue("queue" + std::to_string(random_() % 10));
    if (!queues_->cmdConfigGroupHas(queue))
      queues_->cmdConfigGroupIs(CmdConfigGroup::CmdConfigGroupIs(queue));
    const Lumo::Ptr<CmdConfigGroup> group = queues_->cmdConfigGroup(queue);
    for (unsigned i = random_() % 20; i > 0; --i) group->cmdBatchEnq(command());
    if (chance(0.8)) group->enqueueVersionInc(1);
    if (chance(0.02)) queues_->cmdConfigGroupDel(queue);
    if (chance(0.002)) kit_.dropWaiting();
  }

  void failOtherwise(int turn) { daemon_.failOtherwise(turn); }
  void restartDaemon() { daemon_.restart(); }

  Sample sample() {
    Lumo::ActivityLockAnchor activity;
    return {residentKib(), entries("/proc/self/fd"), entries("/proc/self/task") + 1, unaccounted()};
  }

  void print(double at, const Sample& sample) const {
    const Agent::Ledger& ledger = *kit_.ledger();
    std::printf("%.0f", at);
    for (std::size_t i = 0; i < Agent::outcomes; ++i) {
      std::printf(" %llu", ledger.count(static_cast<Outcome>(i)));
    }
    std::printf(" %ld %ld %ld %lld\n", sample.residentKib, sample.descriptors, sample.threads,
                sample.unaccounted);
    std::fflush(stdout);
  }

  // Whether every command comes to an end, within a minute, once nothing fails any more.
  bool ends() {
    daemon_.restart();
    const Clock::time_point deadline = Clock::now() + std::chrono::minutes(1);
    while (Clock::now() < deadline) {
      {
        Lumo::ActivityLockAnchor activity;
        kit_.tick();
        queues_->cmdConfigGroupDelAll();
        if (kit_.ledger()->openAnnounced() == 0)
          return GrpcCmd::lumoAllocTrackTypeInfo_.live() == 0;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

 private:
  bool chance(double share) { return std::uniform_real_distribution<>()(random_) < share; }

  // Of the commands made, those that neither have ended, nor are announced, nor wait in a named
  // queue.
  long long unaccounted() const {
    const Agent::Ledger& ledger = *kit_.ledger();
    U64 known = 0;
    for (auto group = queues_->cmdConfigGroupIterator(); group; ++group)
      known += group.ptr()->cmdBatchs();
    U64 open = 0;
    U64 ended = 0;
    do {  // one that ends meanwhile is not counted twice
      ended = ledger.ended();
      open = ledger.openAnnounced();
    } while (ended != ledger.ended());
    return static_cast<long long>(made_ - known - open - ended);
  }

  U64 waiting() const {
    const Agent::Status status = kit_.status();
    U64 all = status.pending.now;
    for (const auto& [name, depth] : status.queues) all += depth.now;
    return all;
  }

  template <GrpcRequestType type, class... Request>
  Lumo::Ptr<GrpcCmd> tracked(Request&&... request) {
    ++made_;
    return Lumo::allocate<Tracked<TypedCmd<type>>>(kit_.ledger(),
                                                   std::forward<Request>(request)...);
  }

  Lumo::Ptr<GrpcCmd> command() {
    const std::string module = "module" + std::to_string(random_() % 50);
    switch (random_() % 6) {
      case 0:
      case 1: {
        bess::pb::CreateModuleRequest request;
        request.set_name(module);
        request.set_mclass(chance(0.1) ? "NoSuchClass" : "Bypass");
        return tracked<createModule>(request);
      }
      case 2: {
        bess::pb::DestroyModuleRequest request;
        request.set_name(module);
        return tracked<destroyModule>(request);
      }
      case 3:
        return tracked<listModules>();
      case 4:
        return tracked<listWorkers>();
      default:
        return tracked<getVersion>();
    }
  }

  std::mt19937 random_;
  U64 made_ = 0;
  Daemon daemon_;
  const Lumo::Ptr<GrpcGlobalCmdConfig> queues_ = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("soak");
  const Lumo::Ptr<CmdGroup> pending_ = CmdGroup::CmdGroupIs();
  const Lumo::Ptr<GrpcErrorHandlingStatus> status_ =
      GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  Kit kit_{queues_, pending_, status_};
  Lumo::Ptr<ConnectionsMgr> manager_;
};

// The most of the last quarter against the most of the quarter before the half: what grows shows
// there.
template <class Number>
bool flat(const std::vector<Sample>& all, Number Sample::*member, double share, double more) {
  const auto most = [&](std::size_t from, std::size_t to) {
    const auto less = [&](const Sample& a, const Sample& b) { return a.*member < b.*member; };
    const auto at = [&](std::size_t i) { return all.begin() + static_cast<std::ptrdiff_t>(i); };
    return static_cast<double>((*std::max_element(at(from), at(to), less)).*member);
  };
  const std::size_t quarter = all.size() / 4;
  return most(3 * quarter, all.size()) <= most(quarter, 2 * quarter) * (1 + share) + more;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: kit_soak SECONDS FOLDER [SEED]\n", stderr);
    return 1;
  }
  const double seconds = std::strtod(argv[1], nullptr);
  auto& soak =
      *new Soak(argv[2], argc > 3 ? static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)) : 1);
  std::puts(
      "second ok refused failed undecodable dropped resident_KiB descriptors threads unaccounted");
  std::vector<Sample> all;
  const Clock::time_point start = Clock::now();
  const int samples = std::max(fewestSamples, static_cast<int>(seconds / 60));
  for (int turn = 1; turn <= samples; ++turn) {
    const auto until = start + std::chrono::duration<double>(seconds * turn / samples);
    if (turn % 3 == 0) soak.restartDaemon();
    soak.failOtherwise(turn);
    while (Clock::now() < until) {
      soak.step();
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    all.push_back(soak.sample());
    soak.print(seconds * turn / samples, all.back());
  }
  const bool accounted =
      soak.ends() && soak.sample().unaccounted == 0 &&
      std::all_of(all.begin(), all.end(), [](const Sample& one) { return one.unaccounted == 0; });
  // In a short time one large reply is as much as what may be missed of a growth.
  const bool tells = seconds >= 600;
  const bool grown =
      tells && (!flat(all, &Sample::residentKib, 0.05, 8192) ||
                !flat(all, &Sample::descriptors, 0, 4) || !flat(all, &Sample::threads, 0, 4));
  if (!accounted) std::fputs("kit_soak: not every command was accounted for\n", stderr);
  if (grown) std::fputs("kit_soak: memory, descriptors or threads have grown\n", stderr);
  Kit::leaveProcess(accounted && !grown ? 0 : 1);
}
