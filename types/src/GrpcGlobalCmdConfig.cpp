#include <Lumo/AttrTable.h>
#include <Norv/GrpcGlobalCmdConfig.h>

namespace Norv {

namespace {

struct CmdConfigGroupIteration {
  using Iterator = GrpcGlobalCmdConfig::CmdConfigGroupIteratorConst;
  using Key = Lumo::Name;
  static Iterator start(const GrpcGlobalCmdConfig& config) {
    return config.cmdConfigGroupIteratorConst();
  }
  static Iterator startAt(const GrpcGlobalCmdConfig& config, Key name) {
    return config.cmdConfigGroupIteratorConst(name);
  }
  static Lumo::Ptr<CmdConfigGroup> value(const Iterator& iterator) { return iterator.ptr(); }
};

constexpr auto attributes =
    Lumo::attrTable(Lumo::readOnly<GrpcGlobalCmdConfig, &GrpcGlobalCmdConfig::name>(257, "name"),
                    Lumo::with<GrpcGlobalCmdConfig, &GrpcGlobalCmdConfig::cmdConfigGroup>(
                        Lumo::collection<GrpcGlobalCmdConfig, CmdConfigGroupIteration>(
                            258, "cmdConfigGroup", &CmdConfigGroup::_lumoType),
                        Lumo::opMemberRead));

}  // namespace

constinit const Lumo::LumoType GrpcGlobalCmdConfig::_lumoType(
    "Norv::GrpcGlobalCmdConfig", attributes,
    Lumo::genericFunctions<GrpcGlobalCmdConfig, &grpcGlobalCmdConfigFactory>());
constinit const Lumo::LumoType GrpcGlobalCmdConfig::NotifieeConst::_lumoType(
    "Norv::GrpcGlobalCmdConfig::NotifieeConst");

Lumo::ValidPtr<GrpcGlobalCmdConfig> GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs(Lumo::Name name) {
  return Lumo::allocate<GrpcGlobalCmdConfig>(name);
}

void GrpcGlobalCmdConfig::zeroReferencesIs(bool zero) {
  if (zero) notifyZeroReferences(notifiees_);
}

void GrpcGlobalCmdConfig::cmdConfigGroupNotify(const Lumo::Name& name) {
  using Handler = void (NotifieeConst::*)(Lumo::Name);
  const auto kept = keptFor(notifiees_);
  assertNoReadsPreserved();
  notifiees_.notify(static_cast<Handler>(&NotifieeConst::onCmdConfigGroup), name);
}

void GrpcGlobalCmdConfig::cmdConfigGroupIs(const Lumo::Ptr<CmdConfigGroup>& cmdConfigGroup) {
  if (!cmdConfigGroup) {
    // Kept on purpose: the text ends in a stray double quote.
    Lumo::throwRangeException(
        "null _cmdConfigGroup parameter to mutator for "
        "Norv::GrpcGlobalCmdConfig::cmdConfigGroup not allowed\"");
  }
  fwkEntityVersionInc();
  const Lumo::Name name = cmdConfigGroup->name();
  if (cmdConfigGroup_[name] == cmdConfigGroup) return;
  cmdConfigGroup_.memberIs(name, cmdConfigGroup);
  cmdConfigGroupNotify(name);
}

Lumo::Ptr<CmdConfigGroup> GrpcGlobalCmdConfig::cmdConfigGroupDel(Lumo::Name name) {
  fwkEntityVersionInc();
  Lumo::Ptr<CmdConfigGroup> removed = cmdConfigGroup_.memberDel(name);
  if (removed) cmdConfigGroupNotify(name);
  return removed;
}

Lumo::Ptr<CmdConfigGroup> GrpcGlobalCmdConfig::cmdConfigGroupDel(CmdConfigGroupIterator& iterator) {
  if (iterator && cmdConfigGroup_[iterator.key()] == iterator.ptr()) {
    return cmdConfigGroupDel(iterator.key());
  }
  fwkEntityVersionInc();
  return nullptr;
}

void GrpcGlobalCmdConfig::cmdConfigGroupDelAll() {
  fwkEntityVersionInc();
  const auto kept = keptFor(notifiees_);
  for (auto iterator = cmdConfigGroupIterator(); iterator; ++iterator) cmdConfigGroupDel(iterator);
}

Lumo::Ptr<GrpcGlobalCmdConfig> grpcGlobalCmdConfigFactory(Lumo::Name name) {
  return GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs(name);
}

}  // namespace Norv
