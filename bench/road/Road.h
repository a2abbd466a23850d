#pragma once

#include <grpcpp/grpcpp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <Norv/ConnectionsMgr.h>
#include <bess/pb/service.grpc.pb.h>

#include "../Signal.h"

// What the programs of this folder share: a server with one RPC, a command that counts its
// response, and an agent that sends such commands through a manager.
namespace road {

namespace pb = bess::pb;
using namespace Norv;

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
  Version service;
  int port = 0;
  std::unique_ptr<grpc::Server> server;
};

inline std::shared_ptr<grpc::Channel> channelTo(U16 port) {
  return grpc::CreateChannel("127.0.0.1:" + std::to_string(port),
                             grpc::InsecureChannelCredentials());
}

// Counts its response. The last one of a batch also says so.
class Counting : public GrpcCmd {
 public:
  explicit Counting(std::atomic<U64>* done, bench::Signal* last = nullptr)
      : GrpcCmd(new pb::EmptyRequest(), getVersion), done_(done), last_(last) {}
  void processResponse(google::protobuf::Message*) override {
    done_->fetch_add(1, std::memory_order_release);
    if (last_) last_->release();
  }

 private:
  std::atomic<U64>* const done_;
  bench::Signal* const last_;
};

// A connected manager cannot be destroyed: an agent lives until the process ends.
struct Agent {
  explicit Agent(U16 port) {
    config->cmdConfigGroupIs(queue);
    manager = ConnectionsMgr::ConnectionsMgrIs(
        ConnectionConfig::ConnectionConfigIs(port, "127.0.0.1"), config, pending,
        GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs());
  }
  // Announces a batch of at least one command.
  void send(U64 count) {
    Lumo::ActivityLockAnchor activity;
    for (U64 i = 1; i < count; ++i) queue->cmdBatchEnq(Lumo::allocate<Counting>(&done));
    queue->cmdBatchEnq(Lumo::allocate<Counting>(&done, &last));
    queue->enqueueVersionInc(1);
  }
  // Until the batch is answered. Signals again now and then, as the worker may miss the one signal.
  void wait() {
    while (!last.tryAcquireFor(std::chrono::milliseconds(100))) {
      Lumo::LockAnchor anchor(manager->threadLock());
      manager->threadCondition()->signal();
    }
  }
  Lumo::Ptr<GrpcGlobalCmdConfig> config = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("bench");
  Lumo::Ptr<CmdConfigGroup> queue = CmdConfigGroup::CmdConfigGroupIs("main");
  Lumo::Ptr<CmdGroup> pending = CmdGroup::CmdGroupIs();
  Lumo::Ptr<ConnectionsMgr> manager;
  std::atomic<U64> done{0};
  bench::Signal last;
};

// CPU time of this process in seconds.
inline double cpuSeconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The server in a process of its own, so that its CPU time is not counted. Returns its port.
inline U16 startServer() {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  const pid_t parent = getpid();
  if (fork() == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    const Server server;
    if (write(ends[1], &server.port, sizeof server.port) < 0) _exit(1);
    for (;;) pause();
  }
  int port = 0;
  if (read(ends[0], &port, sizeof port) != sizeof port) std::abort();
  return static_cast<U16>(port);
}

}  // namespace road
