#include <Norv/CmdConfigGroup.h>

#include "CmdBatchAttr.h"

namespace Norv {

namespace {

constexpr auto attributes = Lumo::attrTable(
    Lumo::readOnly<CmdConfigGroup, &CmdConfigGroup::name>(257, "name"),
    cmdBatchAttr<CmdConfigGroup>(259),
    Lumo::readWrite<CmdConfigGroup, &CmdConfigGroup::enqueueVersion,
                    &CmdConfigGroup::enqueueVersionIs>(260, "enqueueVersion"),
    Lumo::readWrite<CmdConfigGroup, &CmdConfigGroup::ignoreConfigQueueLimit,
                    &CmdConfigGroup::ignoreConfigQueueLimitIs>(261, "ignoreConfigQueueLimit"));

}  // namespace

constinit const Lumo::LumoType CmdConfigGroup::_lumoType(
    "Norv::CmdConfigGroup", attributes,
    Lumo::genericFunctions<CmdConfigGroup, &cmdConfigGroupFactory>());
constinit const Lumo::LumoType CmdConfigGroup::NotifieeConst::_lumoType(
    "Norv::CmdConfigGroup::NotifieeConst");
template <>
constinit const Lumo::LumoType CmdConfigGroup::LumoCmdBatch::_lumoType(
    "Norv::CmdConfigGroup::LumoCmdBatch");

Lumo::ValidPtr<CmdConfigGroup> CmdConfigGroup::CmdConfigGroupIs(Lumo::Name name) {
  return Lumo::allocate<CmdConfigGroup>(name);
}

void CmdConfigGroup::zeroReferencesIs(bool zero) {
  if (zero) notifyZeroReferences(notifiees_);
}

void CmdConfigGroup::cmdBatchNotify(U32 index) {
  using Handler = void (NotifieeConst::*)(U32);
  assertNoReadsPreserved();
  notifiees_.notify(static_cast<Handler>(&NotifieeConst::onCmdBatch), index);
}

void CmdConfigGroup::cmdBatchEnq(const Lumo::Ptr<GrpcCmd>& cmd) {
  cmdBatchEnq(Lumo::Ptr<GrpcCmd>(cmd));
}

void CmdConfigGroup::cmdBatchEnq(Lumo::Ptr<GrpcCmd>&& cmd) {
  fwkEntityVersionInc();
  const auto kept = keptFor(notifiees_);
  cmdBatchNotify(cmdBatch_.enq(std::move(cmd)));
}

void CmdConfigGroup::cmdBatchIs(U32 index, const Lumo::Ptr<GrpcCmd>& cmd) {
  fwkEntityVersionInc();
  const Lumo::Ptr<LumoCmdBatch> entry = cmdBatch_[index];
  if (entry && index < cmdBatchs() && entry->cmdBatch() == cmd) return;
  const auto kept = keptFor(notifiees_);
  if (cmdBatch_.is(index, cmd)) cmdBatchNotify(index);
}

Lumo::Ptr<GrpcCmd> CmdConfigGroup::cmdBatchDeq() {
  fwkEntityVersionInc();
  const U32 headIndex = cmdBatch_.headIndex();
  Lumo::Ptr<LumoCmdBatch> removed = cmdBatch_._memberDelHead();
  if (!removed) return nullptr;
  const auto kept = keptFor(notifiees_);
  cmdBatchNotify(headIndex);
  return cmdBatch_.cmdOf(std::move(removed));
}

Lumo::Ptr<GrpcCmd> CmdConfigGroup::cmdBatchDel(U32 index) {
  fwkEntityVersionInc();
  Lumo::Ptr<LumoCmdBatch> removed = cmdBatch_._memberDel(index);
  if (!removed) return nullptr;
  const auto kept = keptFor(notifiees_);
  cmdBatchNotify(index);
  return cmdBatch_.cmdOf(std::move(removed));
}

void CmdConfigGroup::cmdBatchDelAll() {
  fwkEntityVersionInc();
  const auto kept = keptFor(notifiees_);
  for (auto iterator = cmdBatchIterator(); iterator; ++iterator) cmdBatchDel(iterator.key());
}

void CmdConfigGroup::cmdBatchMetadataIs(const CmdBatchMetadata& metadata) {
  fwkEntityVersionInc();
  cmdBatch_.metadataIs(metadata);
  const auto kept = keptFor(notifiees_);
  assertNoReadsPreserved();
  notifiees_.notify(&NotifieeConst::onCmdBatchMetadata);
}

void CmdConfigGroup::enqueueVersionIs(const U64& version) {
  fwkEntityVersionInc();
  if (enqueueVersion_ == version) return;
  enqueueVersion_ = version;
  const auto kept = keptFor(notifiees_);
  assertNoReadsPreserved();
  notifiees_.notify(&NotifieeConst::onEnqueueVersion);
}

U64 CmdConfigGroup::enqueueVersionInc(const U64& delta) {
  const U64 version = enqueueVersion_ + delta;
  enqueueVersionIs(version);
  return version;
}

void CmdConfigGroup::ignoreConfigQueueLimitIs(bool ignore) {
  fwkEntityVersionInc();
  if (ignoreConfigQueueLimit_ == ignore) return;
  ignoreConfigQueueLimit_ = ignore;
  const auto kept = keptFor(notifiees_);
  assertNoReadsPreserved();
  notifiees_.notify(&NotifieeConst::onIgnoreConfigQueueLimit);
}

Lumo::Ptr<CmdConfigGroup> cmdConfigGroupFactory(Lumo::Name name) {
  return CmdConfigGroup::CmdConfigGroupIs(name);
}

}  // namespace Norv
