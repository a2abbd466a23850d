// What norvd's note of the command under way costs, beside the command itself: a call over the
// loopback to a stand-in daemon in this process.

#include <Standin/Server.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <bess/pb/service.grpc.pb.h>

#include "../Pair.h"
#include "UnderWay.h"
#include "Values.h"
#include "agent/ObjectNames.h"

namespace {

using Clock = std::chrono::steady_clock;

// Nanoseconds for each.
template <class Action>
double cost(int times, Action action) {
  const auto begin = Clock::now();
  for (int i = 0; i < times; ++i) action(i);
  return std::chrono::duration<double, std::nano>(Clock::now() - begin).count() / times;
}

}  // namespace

int main() {
  const int commands = bench::quick() ? 200 : 5000;
  const int turns = bench::quick() ? 3 : 5;
  const auto file = std::filesystem::temp_directory_path() /
                    ("norvd-note-" + std::to_string(static_cast<long>(getpid())));
  Norvd::UnderWay underWay;
  underWay.fileIs(file);
  std::filesystem::remove(file);  // it stays open
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  Standin::Server server(options);
  const auto stub = bess::pb::BESSControl::NewStub(
      grpc::CreateChannel(server.address(), grpc::InsecureChannelCredentials()));
  for (int turn = 0; turn < turns; ++turn) {
    const auto note = [&](int i) {
      const Norvd::DeathNote what{Norvctl::deathKey({Norv::State::Kind::module, std::to_string(i)}),
                                  "0123456789abcdef", "createModule"};
      underWay.noteIs(written(what));
    };
    const auto command = [&](int i) {
      grpc::ClientContext context;
      bess::pb::CreateModuleRequest request;
      request.set_name("m" + std::to_string(turn) + "_" + std::to_string(i));
      request.set_mclass("Bypass");
      bess::pb::CreateModuleResponse reply;
      if (!stub->CreateModule(&context, request, &reply).ok() || reply.error().code() != 0) {
        throw std::runtime_error("createModule: " + reply.error().errmsg());
      }
    };
    const auto [here, peer] = bench::inTurn(
        turn, [&] { return cost(commands * 10, note); }, [&] { return cost(commands, command); });
    bench::pair("note", here, peer);
  }
}
