#include <Lumo/AttrTable.h>
#include <Norv/CmdConfigGroupSm.h>
#include <Norv/ConnectionsMgr.h>
#include <Norv/ManagerTrace.h>

#include "Follow.h"

namespace Norv {

namespace {

constexpr auto attributes = Lumo::attrTable(
    Lumo::readWrite<CmdConfigGroupSm, &CmdConfigGroupSm::clock, &CmdConfigGroupSm::clockIs>(
        130, "clock"),
    Lumo::readWrite<CmdConfigGroupSm, &CmdConfigGroupSm::configGroup,
                    &CmdConfigGroupSm::configGroupIs>(131, "configGroup"),
    Lumo::readOnly<CmdConfigGroupSm, &CmdConfigGroupSm::name>(132, "name"),
    Lumo::function<CmdConfigGroupSm, &CmdConfigGroupSm::handleBatch>(133, "handleBatch"),
    Lumo::described(134, "connectionsMgr", "Norv::ConnectionsMgr"));

}  // namespace

constinit const Lumo::LumoType CmdConfigGroupSm::_lumoType(
    "Norv::CmdConfigGroupSm", attributes,
    Lumo::genericFunctions<CmdConfigGroupSm, &cmdConfigGroupSmFactory>());
constinit const Lumo::LumoType CmdConfigGroupSm::LumoClock::_lumoType(
    "Norv::CmdConfigGroupSm::LumoClock");
constinit const Lumo::LumoType CmdConfigGroupSm::LumoConfigGroup::_lumoType(
    "Norv::CmdConfigGroupSm::LumoConfigGroup");

CmdConfigGroupSm::LumoClock::LumoClock(const Lumo::Ptr<const Lumo::Clock>& clock,
                                       CmdConfigGroupSm* owner)
    : cmdConfigGroupSm_(owner) {
  startFollowing(clock);
}

void CmdConfigGroupSm::LumoClock::hasNotificationActiveIs(bool active) {
  if (active == hasNotificationActive()) return;
  Lumo::Clock::NotifieeConst::hasNotificationActiveIs(active);
}

CmdConfigGroupSm::LumoConfigGroup::LumoConfigGroup(const Lumo::Ptr<CmdConfigGroup>& group,
                                                   CmdConfigGroupSm* owner)
    : cmdConfigGroupSm_(owner) {
  startFollowing(group);
}

void CmdConfigGroupSm::LumoConfigGroup::hasNotificationActiveIs(bool active) {
  if (active == hasNotificationActive()) return;
  CmdConfigGroup::NotifieeConst::hasNotificationActiveIs(active);
}

void CmdConfigGroupSm::LumoConfigGroup::notifierIs(
    Lumo::Ptr<Lumo::PtrInterface const> const& notifier) {
  if (notifier == notifier_) return;
  CmdConfigGroup::NotifieeConst::notifierIs(notifier);
  if (notifier_) handleBatch();
}

void CmdConfigGroupSm::LumoConfigGroup::onEnqueueVersion() {
  handleBatch();
}

void CmdConfigGroupSm::LumoConfigGroup::handleBatch() {
  if (lumoMarkedForDeletion() || !cmdConfigGroupSm_) return;
  // Held, because a producer that follows the queue may delete the machine from inside.
  const Lumo::Ptr<CmdConfigGroupSm> owner(cmdConfigGroupSm_);
  owner->handleBatch();
}

CmdConfigGroupSm::CmdConfigGroupSm(const Lumo::Ptr<CmdConfigGroup>& configGroup,
                                   ConnectionsMgr* connectionsMgr)
    : connectionsMgr_(connectionsMgr) {
  if (configGroup) lumoConfigGroup_ = Lumo::allocate<LumoConfigGroup>(configGroup, this);
  handleBatch();
}

Lumo::ValidPtr<CmdConfigGroupSm> CmdConfigGroupSm::CmdConfigGroupSmIs(
    const Lumo::Ptr<CmdConfigGroup>& configGroup, ConnectionsMgr* connectionsMgr) {
  return Lumo::allocate<CmdConfigGroupSm>(configGroup, connectionsMgr);
}

CmdConfigGroupSm::~CmdConfigGroupSm() {
  lumoDoZombieReactors(true);
  if (lumoClock_) lumoClock_->cmdConfigGroupSmIs(nullptr);
  if (lumoConfigGroup_) lumoConfigGroup_->cmdConfigGroupSmIs(nullptr);
}

Lumo::Ptr<const Lumo::Clock> CmdConfigGroupSm::clock() const {
  return lumoClock_ ? lumoClock_->notifier() : nullptr;
}

void CmdConfigGroupSm::clockIs(const Lumo::Ptr<const Lumo::Clock>& clock) {
  follow(this, lumoClock_, clock, &LumoClock::cmdConfigGroupSmIs);
}

Lumo::Ptr<CmdConfigGroup> CmdConfigGroupSm::configGroup() const {
  if (!lumoConfigGroup_) return nullptr;
  return const_cast<CmdConfigGroup*>(lumoConfigGroup_->notifier().ptr());
}

void CmdConfigGroupSm::configGroupIs(const Lumo::Ptr<CmdConfigGroup>& configGroup) {
  follow(this, lumoConfigGroup_, configGroup, &LumoConfigGroup::cmdConfigGroupSmIs);
}

Lumo::Name CmdConfigGroupSm::name() const {
  const Lumo::Ptr<CmdConfigGroup> group = configGroup();
  return group ? group->name() : Lumo::Name();
}

void CmdConfigGroupSm::handleBatch() {
  Twine::trace<ManagerTrace::handleBatch>();
  // No member is touched after the call: moving commands may delete this machine.
  const Lumo::Ptr<CmdConfigGroup> group = configGroup();
  if (!connectionsMgr_ || !group || group->cmdBatchs() == 0) return;
  connectionsMgr_->doEnqueueBatch(group);
}

void CmdConfigGroupSm::lumoDoZombieReactors(bool zombie) {
  if (zombie == lumoMarkedForDeletion()) return;
  if (const Lumo::Ptr<LumoClock> clock = lumoClock_) clock->lumoDoZombieReactors(zombie);
  if (const Lumo::Ptr<LumoConfigGroup> group = lumoConfigGroup_) {
    group->lumoDoZombieReactors(zombie);
  }
  lumoMarkedForDeletionIs(zombie);
}

void CmdConfigGroupSm::hasNotificationActiveIs(bool active) {
  if (active == hasNotificationActive()) return;
  PtrInterface::hasNotificationActiveIs(active);
  if (lumoClock_) lumoClock_->hasNotificationActiveIs(active);
  if (lumoConfigGroup_) lumoConfigGroup_->hasNotificationActiveIs(active);
}

void CmdConfigGroupSm::letGo() {
  lumoDoZombieReactors(true);
  connectionsMgr_ = nullptr;
}

Lumo::Ptr<CmdConfigGroupSm> cmdConfigGroupSmFactory(Lumo::Ptr<CmdConfigGroup> configGroup,
                                                    ConnectionsMgr* connectionsMgr) {
  return CmdConfigGroupSm::CmdConfigGroupSmIs(configGroup, connectionsMgr);
}

}  // namespace Norv
