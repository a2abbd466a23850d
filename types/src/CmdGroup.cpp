#include <Norv/CmdGroup.h>

#include "CmdBatchAttr.h"

namespace Norv {

namespace {

constexpr auto attributes =
    Lumo::attrTable(cmdBatchAttr<CmdGroup>(130),
                    Lumo::readWrite<CmdGroup, &CmdGroup::limit, &CmdGroup::limitIs>(131, "limit"),
                    Lumo::readWrite<CmdGroup, &CmdGroup::pendingCount, &CmdGroup::pendingCountIs>(
                        132, "pendingCount"));

}  // namespace

constinit const Lumo::LumoType CmdGroup::_lumoType(
    "Norv::CmdGroup", attributes, Lumo::genericFunctions<CmdGroup, &cmdGroupFactory>());
template <>
constinit const Lumo::LumoType CmdGroup::LumoCmdBatch::_lumoType("Norv::CmdGroup::LumoCmdBatch");

Lumo::ValidPtr<CmdGroup> CmdGroup::CmdGroupIs() {
  return Lumo::allocate<CmdGroup>();
}

Lumo::Ptr<GrpcCmd> CmdGroup::cmdBatchDel(U32 index) {
  return cmdBatch_.cmdOf(cmdBatch_._memberDel(index));
}

void CmdGroup::cmdBatchDelAll() {
  for (auto iterator = cmdBatchIterator(); iterator; ++iterator) cmdBatchDel(iterator.key());
}

Lumo::Ptr<CmdGroup> cmdGroupFactory() {
  return CmdGroup::CmdGroupIs();
}

}  // namespace Norv
