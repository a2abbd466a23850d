#include <algorithm>

#include <Lumo/Notifiee.h>
#include <Lumo/NotifieeList.h>

namespace Lumo {

void NotifieeList::newMember(NotifieeConst* notifiee) {
  const bool typed = accepts_ && accepts_(notifiee);
  SpinLockAnchor anchor(guard_);
  const auto same = [&](const Member& member) { return member.notifiee == notifiee; };
  if (std::any_of(list_.begin(), list_.end(), same)) return;
  list_.push_back({notifiee, typed});
  members_.fetch_add(1, std::memory_order_relaxed);
}

void NotifieeList::deleteMember(NotifieeConst* notifiee) {
  SpinLockAnchor anchor(guard_);
  for (Member& member : list_) {
    if (member.notifiee != notifiee) continue;
    member.notifiee = nullptr;
    members_.fetch_sub(1, std::memory_order_relaxed);
    break;
  }
  closeUp();
}

void NotifieeList::deleteAll() {
  SpinLockAnchor anchor(guard_);
  for (Member& member : list_) member.notifiee = nullptr;
  members_.store(0, std::memory_order_relaxed);
  closeUp();
}

// Positions must not move under a running visit.
void NotifieeList::closeUp() {
  if (visits_ != 0) return;
  std::erase_if(list_, [](const Member& member) { return member.notifiee == nullptr; });
}

NotifieeList::Visit::Visit(NotifieeList& list) : list_(list) {
  SpinLockAnchor anchor(list_.guard_);
  ++list_.visits_;
  end_ = static_cast<U32>(list_.list_.size());
}

NotifieeList::Visit::~Visit() {
  SpinLockAnchor anchor(list_.guard_);
  if (--list_.visits_ == 0 && list_.members() != list_.list_.size()) list_.closeUp();
}

Ptr<NotifieeConst> NotifieeList::Visit::step(bool typedOnly) {
  SpinLockAnchor anchor(list_.guard_);
  while (position_ < end_) {
    const Member& member = list_.list_[position_++];
    if (!member.notifiee || (typedOnly && !member.typed)) continue;
    // A reactor whose last reference is gone waits at the guard to leave the list.
    if (member.notifiee->referencesIncUnlessZero()) {
      return Ptr<NotifieeConst>(member.notifiee, __NoRefcountIncrement());
    }
  }
  return nullptr;
}

}  // namespace Lumo
