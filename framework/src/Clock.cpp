#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include <Lumo/Clock.h>

namespace Lumo {

namespace {

constexpr double never = std::numeric_limits<double>::infinity();

void checkTime(double time) {
  if (std::isnan(time)) throwRangeException("a time must be a number of seconds");
}

}  // namespace

Ptr<Clock> Clock::ClockIs(Name name) {
  return allocate<Clock>(name);
}

Clock::~Clock() = default;

void Clock::zeroReferencesIs(bool zero) {
  if (zero) notifyZeroReferences(notifiees_);
}

void Clock::timeIs(double time) {
  checkTime(time);
  fwkEntityVersionInc();
  if (time != time_) {
    time_ = time;
    assertNoReadsPreserved();
  }
  const Ptr<Entity const> kept(schedule_.empty() ? nullptr : this);
  // Requests made by the handlers called here belong to the next event, so the due ones are counted
  // out before the first call; one that is withdrawn meanwhile is looked up in vain.
  std::vector<std::pair<NotifieeListClockKey, U64>> due;
  for (const auto& [key, node] : schedule_) {
    if (key.time > time) break;
    due.emplace_back(key, node.number());
  }
  for (const auto& [key, number] : due) {
    const auto found = schedule_.find(key);
    if (found == schedule_.end() || found->second.number() != number) continue;
    const Ptr<NotifieeConst> reactor(found->second.reactor());
    scheduleDel(reactor.ptr());
    catching([&] { reactor->onTime(); }, [&] { reactor->onNotificationException(); });
  }
}

double Clock::nextTimeout() const {
  if (schedule_.empty() || schedule_.begin()->first.time == never) return -1;
  return std::max(0.0, schedule_.begin()->first.time);
}

// Behind those that wait for the same time. A reactor that is the last of them keeps its place.
NotifieeListClockKey Clock::nextKey(const NotifieeConst* reactor, double time) const {
  const auto later = schedule_.upper_bound({time, std::numeric_limits<int>::max()});
  if (later == schedule_.begin() || std::prev(later)->first.time != time) return {time, 0};
  const auto& [last, node] = *std::prev(later);
  if (node.reactor() == reactor) return last;
  if (last.seq == std::numeric_limits<int>::max()) {
    throwRangeException("the clock has too many requests for one time");
  }
  return {time, last.seq + 1};
}

void Clock::scheduleIs(NotifieeConst* reactor, double time) const {
  const double before = nextTimeout();
  const NotifieeListClockKey key = nextKey(reactor, time);  // nothing has changed if this throws
  scheduleDel(reactor);
  schedule_.emplace(key, NotifieeListClockLinkNode(reactor, ++requests_));
  reactor->request_ = key;
  const double now = nextTimeout();
  if (earlierRequestHook_ && now >= 0 && (before < 0 || now < before)) earlierRequestHook_();
}

void Clock::scheduleDel(NotifieeConst* reactor) const {
  if (const auto request = std::exchange(reactor->request_, std::nullopt))
    schedule_.erase(*request);
}

Clock::NotifieeConst::NotifieeConst(Ptr<Clock const> const& clock) : NotifieeConst() {
  startFollowing(clock);
}

Clock::NotifieeConst::~NotifieeConst() {
  NotifieeConst::isRegisteredNotifieeIs(false);  // leaves the schedule as well
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
  checkTime(time);
  if (isRegisteredNotifiee()) notifier()->scheduleIs(this, time);
}

}  // namespace Lumo
