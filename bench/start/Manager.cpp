// Sends one getVersion through a manager and ends with its answer; without a port it does nothing,
// with the library loaded. Usage: start_manager [PORT].

#include <unistd.h>

#include <cstdlib>

#include <Norv/ConnectionsMgr.h>
#include <bess/pb/service.pb.h>

#include "../Signal.h"

namespace {

bench::Signal answered;

class First : public Norv::GrpcCmd {
 public:
  First() : GrpcCmd(new bess::pb::EmptyRequest(), Norv::getVersion) {}
  void processResponse(google::protobuf::Message*) override { answered.release(); }
};

}  // namespace

int main(int argc, char** argv) {
  using namespace Norv;
  const auto queue = CmdConfigGroup::CmdConfigGroupIs("main");
  if (argc < 2) _exit(0);
  const auto config = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("start");
  config->cmdConfigGroupIs(queue);
  const auto manager = ConnectionsMgr::ConnectionsMgrIs(
      ConnectionConfig::ConnectionConfigIs(static_cast<U16>(std::atoi(argv[1])), "127.0.0.1"),
      config, CmdGroup::CmdGroupIs(), GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs());
  {
    Lumo::ActivityLockAnchor activity;
    queue->cmdBatchEnq(Lumo::allocate<First>());
    queue->enqueueVersionInc(1);
  }
  // The one signal may come before the worker waits.
  while (!answered.tryAcquireFor(std::chrono::milliseconds(5))) {
    Lumo::LockAnchor anchor(manager->threadLock());
    manager->threadCondition()->signal();
  }
  _exit(0);  // the worker cannot be told to stop
}
