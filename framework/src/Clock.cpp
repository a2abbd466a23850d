#include <algorithm>

#include <Lumo/Clock.h>

namespace Lumo {

Ptr<Clock> Clock::ClockIs(Name name) {
  return allocate<Clock>(name);
}

Clock::~Clock() = default;

void Clock::zeroReferencesIs(bool zero) {
  if (zero) notifyZeroReferences(notifiees_);
}

void Clock::timeIs(double time) {
  fwkEntityVersionInc();
  time_ = time;
  assertNoReadsPreserved();
  // Requests made by the handlers called here belong to the next event, so the due ones are counted
  // out before the first call; one that is withdrawn meanwhile is looked up in vain.
  std::vector<NotifieeListClockKey> due;
  for (const auto& [key, node] : schedule_) {
    if (key.time > time) break;
    due.push_back(key);
  }
  for (const NotifieeListClockKey& key : due) {
    const auto found = schedule_.find(key);
    if (found == schedule_.end()) continue;
    const Ptr<NotifieeConst> reactor(found->second.reactor());
    schedule_.erase(found);
    try {
      reactor->onTime();
    } catch (...) {
      reactor->onNotificationException();
    }
  }
}

double Clock::nextTimeout() const {
  return schedule_.empty() ? -1 : std::max(0.0, schedule_.begin()->first.time);
}

void Clock::scheduleIs(NotifieeConst* reactor, double time) const {
  const double before = nextTimeout();
  scheduleDel(reactor);
  const int seq = static_cast<int>(nextSeq_++);
  schedule_.emplace(NotifieeListClockKey{time, seq}, NotifieeListClockLinkNode(reactor));
  if (earlierRequestHook_ && (before < 0 || nextTimeout() < before)) earlierRequestHook_();
}

void Clock::scheduleDel(const NotifieeConst* reactor) const {
  std::erase_if(schedule_, [&](const auto& entry) { return entry.second.reactor() == reactor; });
}

Clock::NotifieeConst::NotifieeConst(Ptr<Clock const> const& clock) {
  startFollowing(clock);
}

Clock::NotifieeConst::~NotifieeConst() {
  doZombieReactor(true);
}

void Clock::NotifieeConst::isRegisteredNotifieeIs(bool registered) const {
  const bool was = isRegisteredNotifiee();
  Lumo::NotifieeConst::isRegisteredNotifieeIs(registered);
  if (was == isRegisteredNotifiee()) return;
  NotifieeConst* self = const_cast<NotifieeConst*>(this);
  registered ? notifier()->scheduleIs(self, notifier()->time()) : notifier()->scheduleDel(self);
}

void Clock::NotifieeConst::onTime() {}

Ptr<Clock const> Clock::NotifieeConst::notifier() const {
  return Ptr<Clock const>(static_cast<const Clock*>(lumoRawNotifier()));
}

void Clock::NotifieeConst::timeoutIs(double time) {
  if (isRegisteredNotifiee()) notifier()->scheduleIs(this, time);
}

}  // namespace Lumo
