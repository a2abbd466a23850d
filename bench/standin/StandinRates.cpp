// What a call costs at the stand-in, beside a server that does nothing but answer: both in this
// process, over the loopback, one call at a time and eight. The stand-in holds 10,000 modules. Also
// what many rules in one request cost, and the memory of modules and rules.

#include <Standin/Server.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <bess/pb/service.grpc.pb.h>

#include "../Pair.h"

using namespace bess::pb;

namespace {

constexpr int modulesPresent = 10000;

// The peer: generated code and an empty function.
class Trivial final : public BESSControl::Service {
 public:
  grpc::Status GetVersion(grpc::ServerContext*, const EmptyRequest*,
                          VersionResponse* out) override {
    out->set_version("trivial");
    return grpc::Status::OK;
  }
  grpc::Status CreateModule(grpc::ServerContext*, const CreateModuleRequest* in,
                            CreateModuleResponse* out) override {
    out->set_name(in->name());
    return grpc::Status::OK;
  }
  grpc::Status DestroyModule(grpc::ServerContext*, const DestroyModuleRequest*,
                             EmptyResponse*) override {
    return grpc::Status::OK;
  }
};

std::unique_ptr<BESSControl::Stub> stubOf(const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  arguments.SetMaxSendMessageSize(-1);
  return BESSControl::NewStub(
      grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments));
}

template <class Method, class Request, class Response>
void call(BESSControl::Stub& stub, Method method, const Request& request, Response& response) {
  grpc::ClientContext context;
  response.Clear();
  const grpc::Status status = (stub.*method)(&context, request, &response);
  if (!status.ok() || response.error().code() != 0)
    throw std::runtime_error(status.error_message() + response.error().errmsg());
}

struct TrivialServer {
  TrivialServer() {
    grpc::ServerBuilder builder;
    int port = 0;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterService(&service);
    server = builder.BuildAndStart();
    address = "127.0.0.1:" + std::to_string(port);
    stub = stubOf(address);
  }
  Trivial service;
  std::string address;
  std::unique_ptr<grpc::Server> server;
  std::unique_ptr<BESSControl::Stub> stub;
};

struct StandinServer {
  StandinServer() : server(options()), stub(stubOf(server.address())) {}
  static Standin::Options options() {
    Standin::Options options;
    options.listen = "127.0.0.1:0";
    return options;
  }
  void fill() {
    CreateModuleRequest request;
    CreateModuleResponse response;
    request.set_mclass("Bypass");
    for (int i = 0; i < modulesPresent; ++i)
      call(*stub, &BESSControl::Stub::CreateModule, request, response);
  }
  Standin::Server server;
  std::unique_ptr<BESSControl::Stub> stub;
};

using Operation = void (*)(BESSControl::Stub&);

void getVersion(BESSControl::Stub& stub) {
  VersionResponse response;
  call(stub, &BESSControl::Stub::GetVersion, EmptyRequest(), response);
}

// A module comes and goes, so that there are as many at the end.
void createModule(BESSControl::Stub& stub) {
  CreateModuleRequest create;
  CreateModuleResponse created;
  create.set_name("one-more");
  create.set_mclass("Bypass");
  call(stub, &BESSControl::Stub::CreateModule, create, created);
  DestroyModuleRequest destroy;
  EmptyResponse destroyed;
  destroy.set_name("one-more");
  call(stub, &BESSControl::Stub::DestroyModule, destroy, destroyed);
}

constexpr int operationsPerRound = 500;

// Microseconds of one operation, from a row of them.
double timed(BESSControl::Stub& stub, Operation operation) {
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < operationsPerRound; ++i) operation(stub);
  const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - begin;
  return took.count() / operationsPerRound;
}

// The same of a caller's, while others of its kind call too, each over a connection of its own.
double timedTogether(const std::vector<std::unique_ptr<BESSControl::Stub>>& stubs,
                     Operation operation) {
  const auto begin = std::chrono::steady_clock::now();
  std::vector<std::thread> callers;
  for (const auto& stub : stubs) callers.emplace_back([&] { timed(*stub, operation); });
  for (std::thread& caller : callers) caller.join();
  const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - begin;
  return took.count() / operationsPerRound / static_cast<double>(stubs.size());
}

std::vector<std::unique_ptr<BESSControl::Stub>> callersOf(const std::string& address) {
  std::vector<std::unique_ptr<BESSControl::Stub>> stubs;
  for (int i = 0; i < 8; ++i) stubs.push_back(stubOf(address));
  return stubs;
}

int turnsOf(int full) {
  return bench::quick() ? 5 : full;
}

// The two by turns, so that what else the machine does strikes both.
void besideTrivial(const char* key, Operation operation, const StandinServer& standin,
                   const TrivialServer& trivial) {
  for (int turn = 0; turn < turnsOf(40); ++turn) {
    const auto [here, peer] = bench::inTurn(
        turn, [&] { return timed(*standin.stub, operation); },
        [&] { return timed(*trivial.stub, operation); });
    bench::pair(key, here, peer);
  }
}

void eightBesideTrivial(const char* key, Operation operation, const StandinServer& standin,
                        const TrivialServer& trivial) {
  const auto callers = callersOf(standin.server.address()), peers = callersOf(trivial.address);
  for (int turn = 0; turn < turnsOf(20); ++turn) {
    const auto [here, peer] = bench::inTurn(
        turn, [&] { return timedTogether(callers, operation); },
        [&] { return timedTogether(peers, operation); });
    bench::pair(key, here, peer);
  }
}

// Bytes of the heap in use.
std::size_t allocated() {
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

CommandRequest rules(int count) {
  ExactMatchConfig config;
  for (int i = 0; i < count; ++i) {
    auto& rule = *config.add_rules();
    rule.set_gate(1);
    rule.add_fields()->set_value_int(static_cast<std::uint64_t>(i));
  }
  CommandRequest request;
  request.set_name("em0");
  request.set_cmd("set_runtime_config");
  request.mutable_arg()->PackFrom(config);
  return request;
}

void hundredThousandRules() {
  StandinServer server;
  CreateModuleRequest create;
  CreateModuleResponse created;
  ExactMatchArg arg;
  arg.add_fields()->set_num_bytes(4);
  create.set_mclass("ExactMatch");
  create.mutable_arg()->PackFrom(arg);
  call(*server.stub, &BESSControl::Stub::CreateModule, create, created);
  const CommandRequest request = rules(100000);
  CommandResponse response;
  const std::size_t before = allocated();
  call(*server.stub, &BESSControl::Stub::ModuleCommand, request, response);
  const auto bytes = static_cast<double>(allocated() - before) / 100000;
  constexpr double halfASecond = 500;  // Milliseconds: what it may take at most.
  for (int turn = 0; turn < 5; ++turn) {
    const auto begin = std::chrono::steady_clock::now();
    call(*server.stub, &BESSControl::Stub::ModuleCommand, request, response);
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    bench::pair("rules_at_once", took.count(), halfASecond);
  }
  std::printf("a rule in the stand-in: %.0f bytes\n", bytes);
}

}  // namespace

int main() {
  const TrivialServer trivial;
  StandinServer standin;
  const std::size_t before = allocated();
  standin.fill();
  std::printf("a module in the stand-in: %.0f bytes\n",
              static_cast<double>(allocated() - before) / modulesPresent);
  besideTrivial("get_version", getVersion, standin, trivial);
  eightBesideTrivial("get_version_8", getVersion, standin, trivial);
  besideTrivial("create_module", createModule, standin, trivial);
  hundredThousandRules();
}
