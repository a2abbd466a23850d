#include <algorithm>
#include <mutex>
#include <set>
#include <utility>

#include <Lumo/Notifiee.h>
#include <Lumo/NotifieeList.h>

namespace Lumo {

namespace {

// Which lists the reactors are on that newMember entered: neither side holds the other, so
// whichever goes first is taken out here. The mutex is taken before the guard of a list. Never
// destroyed.
struct ByHand {
  std::mutex mutex;
  std::set<std::pair<const NotifieeConst*, NotifieeList*>> entries;

  static ByHand& instance() {
    static auto* byHand = new ByHand;
    return *byHand;
  }
};

}  // namespace

NotifieeList::~NotifieeList() {
  if (enteredByHand_.load(std::memory_order_relaxed)) deleteAll();
}

void NotifieeList::newMember(NotifieeConst* notifiee) {
  ByHand& byHand = ByHand::instance();
  std::lock_guard byHandGuard(byHand.mutex);
  if (!enter(notifiee)) return;
  byHand.entries.emplace(notifiee, this);
  enteredByHand_.store(true, std::memory_order_relaxed);
  notifiee->enteredByHand_.store(true, std::memory_order_relaxed);
}

bool NotifieeList::enter(NotifieeConst* notifiee) {
  const bool typed = accepts_ && accepts_(notifiee);
  SpinLockAnchor anchor(guard_);
  const auto same = [&](const Member& member) { return member.notifiee == notifiee; };
  if (std::any_of(list_.begin(), list_.end(), same)) return false;
  list_.push_back({notifiee, ++changes_, typed});
  members_.store(static_cast<U32>(list_.size()), std::memory_order_relaxed);
  return true;
}

void NotifieeList::deleteMember(NotifieeConst* notifiee) {
  if (!notifiee->enteredByHand_.load(std::memory_order_relaxed)) {
    leave(notifiee);
    return;
  }
  ByHand& byHand = ByHand::instance();
  std::lock_guard byHandGuard(byHand.mutex);
  leave(notifiee);
  byHand.entries.erase({notifiee, this});
}

void NotifieeList::leave(const NotifieeConst* notifiee) {
  SpinLockAnchor anchor(guard_);
  const auto same = [&](const Member& member) { return member.notifiee == notifiee; };
  if (std::erase_if(list_, same) == 0) return;
  ++changes_;
  members_.store(static_cast<U32>(list_.size()), std::memory_order_relaxed);
}

void NotifieeList::leaveAll(const NotifieeConst* notifiee) {
  ByHand& byHand = ByHand::instance();
  std::lock_guard byHandGuard(byHand.mutex);
  auto entry = byHand.entries.lower_bound({notifiee, nullptr});
  while (entry != byHand.entries.end() && entry->first == notifiee) {
    entry->second->leave(notifiee);
    entry = byHand.entries.erase(entry);
  }
}

void NotifieeList::deleteAll() {
  ByHand& byHand = ByHand::instance();
  std::lock_guard byHandGuard(byHand.mutex);
  SpinLockAnchor anchor(guard_);
  for (const Member& member : list_) byHand.entries.erase({member.notifiee, this});
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
