#pragma once

#include <Lumo/Notifiee.h>

namespace Norv {

// The setter of an attribute that `owner` holds through a reactor: drops, re-points or makes the
// reactor, whose back pointer `ownerIs` sets.
template <class Owner, class Reactor, class Notifier>
void follow(Owner* owner, Lumo::Ptr<Reactor>& reactor, const Lumo::Ptr<Notifier>& notifier,
            void (Reactor::*ownerIs)(Owner*)) {
  if (!reactor && !notifier) return;
  if (reactor && reactor->lumoRawNotifier() == notifier.ptr()) return;
  if (!notifier) {
    const Lumo::Ptr<Reactor> dropped = std::move(reactor);
    dropped->lumoDoZombieReactors(true);
    (dropped.ptr()->*ownerIs)(nullptr);
    return;
  }
  if (!reactor) {
    reactor = Lumo::allocate<Reactor>(notifier, owner);
    reactor->lumoDoZombieReactors(owner->lumoMarkedForDeletion());
    return;
  }
  // The reactor's notifierIs may move commands, and whoever follows those may delete the owner.
  const Lumo::Ptr<Owner> keptOwner(owner);
  const Lumo::Ptr<Reactor> current = reactor;
  current->notifierIs(notifier);
  current->lumoDoZombieReactors(owner->lumoMarkedForDeletion());
}

}  // namespace Norv
