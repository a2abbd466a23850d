#include <support/Agent.h>

namespace support {

Agent::Agent()
    : config(Norv::GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("test")),
      pending(Norv::CmdGroup::CmdGroupIs()),
      status(Norv::GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs()) {}

Agent::~Agent() {
  dropManager();
}

void Agent::connect(unsigned short port, const std::string& host) {
  manager = Norv::ConnectionsMgr::ConnectionsMgrIs(
      Norv::ConnectionConfig::ConnectionConfigIs(port, host), config, pending, status);
}

void Agent::dropManager() {
  const Environment simulation("SIMULATION_NORV", "1");
  manager = nullptr;
}

Lumo::Ptr<Norv::CmdConfigGroup> Agent::queue(const std::string& name) {
  if (!config->cmdConfigGroupHas(name)) {
    config->cmdConfigGroupIs(Norv::CmdConfigGroup::CmdConfigGroupIs(name));
  }
  return config->cmdConfigGroup(name);
}

Lumo::Ptr<Norv::GrpcCmd> Agent::command(Norv::GrpcRequestType type) {
  return Lumo::allocate<LoggedCmd>(log, made++, newRequest(type).release(), type);
}

void Agent::enqueue(Norv::GrpcRequestType type, const std::string& name) {
  queue(name)->cmdBatchEnq(command(type));
}

void Agent::announce(const std::string& name) {
  queue(name)->enqueueVersionInc(1);
}

U32 Agent::waiting() const {
  if (!manager->threadLock()) return pending->cmdBatchs();
  Lumo::LockAnchor anchor(manager->threadLock());
  return pending->cmdBatchs();
}

void Agent::wake() {
  Lumo::LockAnchor anchor(manager->threadLock());
  manager->threadCondition()->signal();
}

bool Agent::eventually(const std::function<bool()>& condition) {
  return support::eventually(condition, [this] { wake(); });
}

}  // namespace support
