#include <algorithm>

#include <Lumo/Notifiee.h>
#include <Lumo/NotifieeList.h>

namespace Lumo {

void NotifieeList::newMember(NotifieeConst* notifiee) {
  const bool typed = accepts_ && accepts_(notifiee);
  SpinLockAnchor anchor(guard_);
  const auto same = [&](const Member& member) { return member.notifiee == notifiee; };
  if (std::any_of(list_.begin(), list_.end(), same)) return;
  list_.push_back({notifiee, ++changes_, typed});
  members_.store(static_cast<U32>(list_.size()), std::memory_order_relaxed);
}

void NotifieeList::deleteMember(NotifieeConst* notifiee) {
  SpinLockAnchor anchor(guard_);
  const auto same = [&](const Member& member) { return member.notifiee == notifiee; };
  if (std::erase_if(list_, same) == 0) return;
  ++changes_;
  members_.store(static_cast<U32>(list_.size()), std::memory_order_relaxed);
}

void NotifieeList::deleteAll() {
  SpinLockAnchor anchor(guard_);
  list_.clear();
  ++changes_;
  members_.store(0, std::memory_order_relaxed);
}

// Members keep their order and their numbers, whatever is removed around them.
void NotifieeList::findPlace(Visit& walk) {
  if (!walk.begun) {
    walk.begun = true;
    walk.position = 0;
    walk.last = changes_;
  } else if (walk.changes != changes_) {
    const auto place =
        std::upper_bound(list_.begin(), list_.end(), walk.done,
                         [](U64 number, const Member& member) { return number < member.number; });
    walk.position = static_cast<std::size_t>(place - list_.begin());
  }
  walk.changes = changes_;
}

// Null for a member that this walk passes over. A reactor whose last reference is gone waits at the
// guard to leave the list.
Ptr<NotifieeConst> NotifieeList::taken(const Visit& walk, const Member& member) {
  if (walk.typedOnly && !member.typed) return nullptr;
  if (!member.notifiee->referencesIncUnlessZero()) return nullptr;
  return Ptr<NotifieeConst>(member.notifiee, __NoRefcountIncrement());
}

Ptr<NotifieeConst> NotifieeList::next(Visit& walk) {
  SpinLockAnchor anchor(guard_);
  if (!walk.begun && list_.size() == 1) {
    walk.atEnd = true;
    return taken(walk, list_.front());
  }
  findPlace(walk);
  while (due(walk)) {
    const Member& member = list_[walk.position++];
    walk.done = member.number;
    if (Ptr<NotifieeConst> notifiee = taken(walk, member)) {
      walk.atEnd = !due(walk);
      return notifiee;
    }
  }
  walk.atEnd = true;
  return nullptr;
}

}  // namespace Lumo
