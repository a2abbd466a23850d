#include "Holds.h"

#include <algorithm>

namespace Norvd {

using Norv::State::Object;

namespace {

// Twice is chance; from there on it is a contest.
constexpr unsigned contest = 3;

}  // namespace

// The interval, doubled with each time.
std::chrono::milliseconds Holds::pause(unsigned times) const {
  const unsigned doublings = std::min(times == 0 ? 0 : times - 1, 20U);
  return std::min<std::chrono::milliseconds>(interval_ * (1U << doublings), longest);
}

Holds::Entry& Holds::entry(const Object& object, const std::string& value) {
  Entry& entry = entries_[object];
  if (entry.value != value) entry = {};
  entry.value = value;
  return entry;
}

std::optional<Holds::Hold> Holds::hold(const Object& object, const std::string& value,
                                       Time now) const {
  const auto found = entries_.find(object);
  if (found == entries_.end() || found->second.value != value) return {};
  const Entry& entry = found->second;
  const bool waits = now < entry.next;
  if (entry.refusals != 0) return Hold{Hold::Why::refused, entry.text, entry.since, waits};
  if (entry.repairs < contest) return {};
  return Hold{Hold::Why::contested,
              "somebody else changes it back; repaired " + std::to_string(entry.repairs) + " times",
              entry.since, waits};
}

void Holds::refused(const Object& object, const std::string& value, const std::string& text,
                    Time now) {
  Entry& one = entry(object, value);
  if (one.refusals == 0) one.since = std::chrono::system_clock::now();
  ++one.refusals;
  one.text = text;
  one.next = now + pause(one.refusals);
}

void Holds::done(const Object& object, const std::string& value, Time now) {
  Entry& one = entry(object, value);
  one.refusals = 0;
  ++one.repairs;
  if (one.repairs == contest) one.since = std::chrono::system_clock::now();
  one.next = one.repairs < contest ? now : now + pause(one.repairs - contest + 2);
}

void Holds::seen(const std::set<Object>& differing, Time now) {
  for (auto one = entries_.begin(); one != entries_.end();) {
    Entry& entry = one->second;
    const bool right = !differing.contains(one->first);
    if (right) entry.refusals = 0;
    // Whoever changes it back would have done so by then.
    const bool quiet = now > entry.next + 10 * interval_ + 2 * pause(entry.repairs);
    one = right && quiet ? entries_.erase(one) : std::next(one);
  }
}

bool Holds::lift(const Object& object) {
  return entries_.erase(object) != 0;
}

}  // namespace Norvd
