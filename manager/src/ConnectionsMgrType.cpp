#include <Lumo/AttrTable.h>
#include <Norv/ConnectionsMgr.h>

namespace Norv {

namespace {

using Mgr = ConnectionsMgr;

struct CmdConfigGroupSmIteration {
  using Iterator = Mgr::CmdConfigGroupSmIteratorConst;
  using Key = Lumo::Name;
  static Iterator start(const Mgr& mgr) { return mgr.cmdConfigGroupSmIteratorConst(); }
  static Iterator startAt(const Mgr& mgr, Key name) {
    return mgr.cmdConfigGroupSmIteratorConst(name);
  }
  static Lumo::Ptr<CmdConfigGroupSm> value(const Iterator& iterator) { return iterator.ptr(); }
};

// Client, thread and lock are plain objects that the generic interface names and does not touch.
constexpr auto attributes = Lumo::attrTable(
    Lumo::readOnly<Mgr, &Mgr::hostConfig>(130, "hostConfig"),
    Lumo::readWrite<Mgr, &Mgr::globalCmdConfig, &Mgr::globalCmdConfigIs>(131, "globalCmdConfig"),
    Lumo::readOnly<Mgr, &Mgr::pendingQueue>(132, "pendingQueue"),
    Lumo::readOnly<Mgr, &Mgr::grpcErrorHandlingStatus>(133, "grpcErrorHandlingStatus"),
    Lumo::described(134, "client", "Norv::GrpcClient"),
    Lumo::described(135, "grpcReplyThread", "std::thread"),
    Lumo::described(136, "threadLock", "Lumo::Lock"),
    Lumo::readWrite<Mgr, &Mgr::threadCondition, &Mgr::threadConditionIs>(137, "threadCondition"),
    Lumo::with<Mgr, &Mgr::cmdConfigGroupSm>(
        Lumo::collection<Mgr, CmdConfigGroupSmIteration>(138, "cmdConfigGroupSm",
                                                         &CmdConfigGroupSm::_lumoType),
        Lumo::opMemberRead),
    Lumo::readWrite<Mgr, &Mgr::initialized, &Mgr::initializedIs>(139, "initialized"),
    Lumo::function<Mgr, &Mgr::handleInitialized>(140, "handleInitialized"),
    Lumo::function<Mgr, &Mgr::destroyGrpcClient>(141, "destroyGrpcClient"),
    Lumo::function<Mgr, &Mgr::doFlushPendingQueue>(142, "doFlushPendingQueue"),
    Lumo::function<Mgr, &Mgr::doEnqueueBatch>(143, "doEnqueueBatch"),
    Lumo::function<Mgr, &Mgr::doEnqueueBatchHelper>(144, "doEnqueueBatchHelper"),
    Lumo::function<Mgr, &Mgr::handleCmdConfigGroup>(145, "handleCmdConfigGroup"));

}  // namespace

constinit const Lumo::LumoType ConnectionsMgr::_lumoType(
    "Norv::ConnectionsMgr", attributes,
    Lumo::genericFunctions<ConnectionsMgr, &connectionsMgrFactory>());
constinit const Lumo::LumoType ConnectionsMgr::LumoGlobalCmdConfig::_lumoType(
    "Norv::ConnectionsMgr::LumoGlobalCmdConfig");

}  // namespace Norv
