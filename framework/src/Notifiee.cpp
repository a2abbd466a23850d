#include <Lumo/Exception.h>
#include <Lumo/GenericValue.h>
#include <Lumo/Notifiee.h>

namespace Lumo {

NotifieeConst::~NotifieeConst() {
  doZombieReactor(true);
  // A zombie whose notification was switched off and on again is back in the list.
  NotifieeConst::isRegisteredNotifieeIs(false);
  if (enteredByHand_.load(std::memory_order_relaxed)) NotifieeList::leaveAll(this);
}

bool NotifieeConst::lumoReactor() const {
  return true;
}

void NotifieeConst::isRegisteredNotifieeIs(bool registered) const {
  NotifieeList* list = notifier_ ? notifier_->notifieeList() : nullptr;
  if (!list || registered_ == registered) return;
  NotifieeConst* self = const_cast<NotifieeConst*>(this);
  registered ? void(list->enter(self)) : list->deleteMember(self);
  registered_ = registered;
}

void NotifieeConst::notifierIs(Ptr<PtrInterface const> const& notifier) {
  if (notifier == notifier_) return;
  checkFollows(notifier.ptr());
  const bool wasRegistered = registered_;
  isRegisteredNotifieeIs(false);
  notifier_ = notifier;
  isRegisteredNotifieeIs(wasRegistered);
}

void NotifieeConst::checkFollows(const PtrInterface* notifier) const {
  if (!notifier || !follows_ || follows_(notifier)) return;
  throwRangeException(String("a reactor of type ") + fwkType()->typeName() + " cannot follow " +
                      objectStrep(notifier));
}

void NotifieeConst::handleNotification(ActivityConfig*) {}

void NotifieeConst::onNotificationException() {
  throw;
}

void NotifieeConst::onZeroReferences() {}

ActivityConfig* NotifieeConst::lumoFwkActivity() const {
  return nullptr;
}

PtrInterface* NotifieeConst::actsm() {
  return nullptr;
}

void NotifieeConst::hasNotificationActiveIs(bool active) {
  if (active == hasNotificationActive()) return;
  PtrInterface::hasNotificationActiveIs(active);
  if (active) {
    if (wasNotified()) isRegisteredNotifieeIs(true);
  } else {
    wasNotifiedIs(isRegisteredNotifiee());
    isRegisteredNotifieeIs(false);
  }
}

void NotifieeConst::startFollowing(Ptr<PtrInterface const> const& notifier) {
  NotifieeConst::hasNotificationActiveIs(true);
  enabledIs(true);
  NotifieeConst::notifierIs(notifier);
  isRegisteredNotifieeIs(true);
}

void NotifieeConst::doZombieReactor(bool zombie) {
  if (zombie == lumoMarkedForDeletion()) return;
  if (notifier_) hasNotificationActiveIs(!zombie);
  lumoMarkedForDeletionIs(zombie);
}

}  // namespace Lumo
