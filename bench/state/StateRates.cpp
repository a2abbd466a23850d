// What the wanted state costs: reading, planning and applying 1,000 modules with 2,000 connections,
// and a table of 100,000 rules, beside hand-written calls for the same commands; the calls that ten
// of its rules take when they change; how planning grows. The stand-in runs in a process of its
// own, and so does the loop of calls that applying takes turns with. The process ends with its
// session.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include <Norv/State/Document.h>
#include <Norv/State/Execution.h>
#include <Norv/State/LiveSwitch.h>
#include <Norv/State/Plan.h>
#include <bess/pb/service.grpc.pb.h>

#include "../Pair.h"
#include "run/RunOptions.h"
#include "run/Session.h"
#include "wanted/PlanSource.h"

namespace {

using namespace Norv::State;
using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::filesystem::path thisProgram() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

std::shared_ptr<grpc::Channel> channelTo(U16 port) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  arguments.SetMaxReceiveMessageSize(-1);
  return grpc::CreateCustomChannel("127.0.0.1:" + std::to_string(port),
                                   grpc::InsecureChannelCredentials(), arguments);
}

// A stand-in in a process of its own.
class Daemon {
 public:
  Daemon() {
    int ends[2];
    if (pipe(ends) != 0) std::abort();
    const auto program = thisProgram().parent_path() / "bessd-standin";
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[1], STDOUT_FILENO);
      close(ends[0]);
      execl(program.c_str(), program.c_str(), "--newer", "--listen", "127.0.0.1:0", nullptr);
      _exit(127);
    }
    close(ends[1]);
    char text[200] = "";
    const ssize_t size = read(ends[0], text, sizeof text - 1);
    close(ends[0]);
    const std::string line(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    port = static_cast<U16>(std::atoi(line.substr(line.rfind(':') + 1).c_str()));
    channel = channelTo(port);
    stub = bess::pb::BESSControl::NewStub(channel);
  }
  ~Daemon() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }

  U16 port = 0;
  std::shared_ptr<grpc::Channel> channel;
  std::unique_ptr<bess::pb::BESSControl::Stub> stub;

 private:
  pid_t pid_;
};

std::string pipeline(int modules) {
  std::string text = "modules:\n";
  for (int i = 0; i < modules; ++i) text += "  m" + std::to_string(i) + ": Bypass\n";
  text += "connections:\n";
  for (int i = 0; i < modules; ++i) {
    text += "  - m" + std::to_string(i) + " -> m" + std::to_string((i + 1) % modules) + "\n";
    text += "  - m" + std::to_string(i) + ":1 -> m" + std::to_string((i * 7 + 3) % modules) + "\n";
  }
  return text;
}

std::string table(int rules) {
  std::string text =
      "modules:\n  t:\n    class: ExactMatch\n    arg: {fields: [{num_bytes: 4}]}\n    rules:\n";
  for (int i = 0; i < rules; ++i) {
    text += "      - {gate: " + std::to_string(i % 4) + ", fields: [" + std::to_string(i) + "]}\n";
  }
  return text;
}

template <class Method, class Request, class Response>
void call(bess::pb::BESSControl::Stub& stub, Method method, const Request& request,
          Response& response) {
  grpc::ClientContext context;
  if (!(stub.*method)(&context, request, &response).ok() || response.error().code() != 0) {
    std::fprintf(stderr, "a call failed\n");
    std::exit(1);
  }
}

void reset(bess::pb::BESSControl::Stub& stub) {
  bess::pb::EmptyResponse response;
  call(stub, &bess::pb::BESSControl::Stub::ResetAll, bess::pb::EmptyRequest(), response);
}

// The same commands as the plan of `pipeline` has, on a switch that is empty and a channel that is
// connected by then.
double byHand(bess::pb::BESSControl::Stub& stub, int modules) {
  using Stub = bess::pb::BESSControl::Stub;
  reset(stub);
  const auto start = Clock::now();
  for (int i = 0; i < modules; ++i) {
    bess::pb::CreateModuleRequest request;
    request.set_name("m" + std::to_string(i));
    request.set_mclass("Bypass");
    bess::pb::CreateModuleResponse response;
    call(stub, &Stub::CreateModule, request, response);
  }
  for (int i = 0; i < 2 * modules; ++i) {
    bess::pb::ConnectModulesRequest request;
    const int from = i / 2;
    request.set_m1("m" + std::to_string(from));
    request.set_m2("m" +
                   std::to_string(i % 2 == 0 ? (from + 1) % modules : (from * 7 + 3) % modules));
    request.set_ogate(static_cast<std::uint64_t>(i % 2));
    bess::pb::EmptyResponse response;
    call(stub, &Stub::ConnectModules, request, response);
  }
  return since(start);
}

// The commands of a plan that makes modules and sends them commands, by plain calls.
void carryOut(const Daemon& daemon, const Plan& plan) {
  using Stub = bess::pb::BESSControl::Stub;
  for (const Step& step : plan.steps) {
    bess::pb::CreateModuleResponse created;
    bess::pb::CommandResponse response;
    bess::pb::CheckSchedulingConstraintsResponse checked;
    if (step.type == Norv::createModule) {
      call(*daemon.stub, &Stub::CreateModule,
           static_cast<const bess::pb::CreateModuleRequest&>(*step.request), created);
    } else if (step.type == Norv::moduleCommand) {
      call(*daemon.stub, &Stub::ModuleCommand,
           static_cast<const bess::pb::CommandRequest&>(*step.request), response);
    } else {
      call(*daemon.stub, &Stub::CheckSchedulingConstraints, bess::pb::EmptyRequest(), checked);
    }
  }
}

// Ten rules of the table that the daemon has get another gate: the calls that takes.
double callsForTen(const Daemon& daemon, const Switch& withTable) {
  LiveSwitch live = readSwitch(daemon.channel);
  live.modules.at("t").table = withTable.modules.at("t").table;  // as the record has it
  Switch changed = withTable;
  Entries& rules = *changed.modules.at("t").table;
  auto rule = rules.begin();
  for (int i = 0; i < 10; ++i, std::advance(rule, rules.size() / 10 - 1)) {
    bess::pb::ExactMatchCommandAddArg entry;
    entry.ParseFromString(rule->second);
    entry.set_gate(entry.gate() + 1);
    rule->second = entry.SerializeAsString();
  }
  const Plan plan = makePlan(live, changed);
  carryOut(daemon, plan);
  return static_cast<double>(plan.commands());
}

double oneByOne(Daemon& daemon, int rules) {
  using Stub = bess::pb::BESSControl::Stub;
  const auto start = Clock::now();
  bess::pb::CreateModuleRequest create;
  create.set_name("t");
  create.set_mclass("ExactMatch");
  bess::pb::ExactMatchArg argument;
  argument.add_fields()->set_num_bytes(4);
  create.mutable_arg()->PackFrom(argument);
  bess::pb::CreateModuleResponse created;
  call(*daemon.stub, &Stub::CreateModule, create, created);
  for (int i = 0; i < rules; ++i) {
    bess::pb::ExactMatchCommandAddArg rule;
    rule.set_gate(static_cast<std::uint64_t>(i % 4));
    rule.add_fields()->set_value_int(static_cast<std::uint64_t>(i));
    bess::pb::CommandRequest request;
    request.set_name("t");
    request.set_cmd("add");
    request.mutable_arg()->PackFrom(rule);
    bess::pb::CommandResponse response;
    call(*daemon.stub, &Stub::ModuleCommand, request, response);
  }
  return since(start);
}

// Ends steps as the session tells.
class Listener : public Norvctl::SessionListener {
 public:
  explicit Listener(Norvctl::PlanSource& source) : source_(source) {}
  void ended(const Norv::Agent::CommandReport& report, const Norvctl::Entry& entry) override {
    const bool ok = report.outcome == Norv::Agent::Outcome::ok;
    source_.ended(entry.line, ok ? StepEnd::done : StepEnd::refused, report.errorText);
  }
  bool told() override { return true; }
  bool wantsUnread() const override { return false; }
  void progress(const Norv::Agent::Kit&) override {}

 private:
  Norvctl::PlanSource& source_;
};

// Applies the plan again and again to a switch that is empty each time, and between has a process
// of its own do the same by hand.
class Turns {
 public:
  Turns(const Daemon& daemon, const Daemon& peer, const Plan& plan, int modules)
      : daemon_(daemon), peer_(peer), plan_(plan), modules_(modules), source(plan, [this] {
          return turn();
        }) {}

  std::vector<double> applied, hand;

 private:
  const std::size_t rounds = bench::quick() ? 5 : 15;

  // The first time warms up. The switch of the last turn stays.
  const Plan* turn() {
    if (!first_) applied.push_back(since(start_));
    first_ = false;
    if (applied.size() == rounds) return nullptr;
    const std::string command = thisProgram().string() + " by-hand " + std::to_string(peer_.port) +
                                " " + std::to_string(modules_);
    FILE* const output = popen(command.c_str(), "r");
    double seconds = 0;
    if (output == nullptr || std::fscanf(output, "%lf", &seconds) != 1) std::abort();
    pclose(output);
    hand.push_back(seconds);
    reset(*daemon_.stub);
    start_ = Clock::now();
    return &plan_;
  }

  const Daemon& daemon_;
  const Daemon& peer_;
  const Plan& plan_;
  const int modules_;
  bool first_ = true;
  Clock::time_point start_;

 public:
  Norvctl::PlanSource source;
};

// CPU time, as it asks nobody and others may be at work.
double cpuSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double planning(const LiveSwitch& live, const Switch& wanted) {
  const double start = cpuSeconds();
  const Plan plan = makePlan(live, wanted);
  return (cpuSeconds() - start) * 1e3;
}

Switch document(const std::string& text) {
  return readDocument({{"bench", text}}).wanted;
}

// A table of so many rules, beside one call for each; then ten of them changed.
void tables(int turn, int rules) {
  Daemon peer;
  Daemon daemon;
  const Switch wanted = document(table(rules));
  const auto planned = [&] {
    const auto start = Clock::now();
    carryOut(daemon, makePlan(readSwitch(daemon.channel), wanted));
    return since(start);
  };
  const auto [here, adds] = bench::inTurn(turn, planned, [&] { return oneByOne(peer, rules); });
  bench::pair("rules", here * 1e3, adds * 1e3);
  bench::pair("ten_rules", callsForTen(daemon, wanted), 10);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "by-hand") {
    const auto stub =
        bess::pb::BESSControl::NewStub(channelTo(static_cast<U16>(std::atoi(argv[2]))));
    std::printf("%f\n", byHand(*stub, std::atoi(argv[3])));
    return 0;
  }
  constexpr int modules = 1000;
  const Switch small = document(pipeline(modules));
  const Switch large = document(pipeline(10 * modules));
  const LiveSwitch nothing;
  planning(nothing, small);
  for (int turn = 0; turn < 7; ++turn) {
    const auto [here, peer] = bench::inTurn(
        turn, [&] { return planning(nothing, large); }, [&] { return planning(nothing, small); });
    bench::pair("plan_growth", here, peer);
  }

  for (int turn = 0; turn < (bench::quick() ? 0 : 3); ++turn) tables(turn, 100000);

  Daemon byHandDaemon;
  Daemon daemon;
  const Plan plan = makePlan(readSwitch(daemon.channel), small);
  Turns turns(daemon, byHandDaemon, plan, modules);
  Listener listener(turns.source);
  Norvctl::SessionOptions options;
  options.host = "127.0.0.1";
  options.port = daemon.port;
  options.stream = true;
  Norvctl::Session session(options, turns.source, listener);
  session.run();
  for (std::size_t i = 0; i < turns.applied.size(); ++i) {
    bench::pair("apply", turns.applied[i] * 1e3, turns.hand[i] * 1e3);
  }

  const auto startRead = Clock::now();
  const LiveSwitch live = readSwitch(daemon.channel);
  const std::string exported = yaml(described(live));
  std::printf("export of that: %.3f s, %zu bytes\n", since(startRead), exported.size());
  std::printf("plan of it against itself: %.1f ms\n", planning(live, small));
  std::fflush(stdout);
  daemon.~Daemon();
  byHandDaemon.~Daemon();
  Norvctl::leave(0);
}
