// A message of the agent's own library becomes a command of norv's. In simulation, so that no
// daemon is needed.
#include <google/protobuf/descriptor.h>

#include <cstdlib>
#include <iostream>

#include <Norv/ConnectionsMgr.h>
#include <Norv/TypedCmd.h>
#include <bess/pb/module.pb.h>

using namespace Norv;

struct Create : TypedCmd<createModule> {
  using TypedCmd::TypedCmd;
};

int main() {
  setenv("SIMULATION_NORV", "1", 1);
  const auto queues = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("agent");
  const auto queue = CmdConfigGroup::CmdConfigGroupIs("modules");
  queues->cmdConfigGroupIs(queue);
  const auto pending = CmdGroup::CmdGroupIs();
  const auto manager = ConnectionsMgr::ConnectionsMgrIs(
      ConnectionConfig::ConnectionConfigIs(10514, "localhost"), queues, pending,
      GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs());

  bess::pb::CreateModuleRequest request;
  request.set_mclass("Bypass");
  queue->cmdBatchEnq(Lumo::allocate<Create>(request));
  queue->enqueueVersionInc(1);
  std::cout << pending->cmdBatchs() << " pending, with " << request.GetDescriptor()->full_name()
            << '\n';
}
