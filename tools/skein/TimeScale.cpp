#include "TimeScale.h"

#include <algorithm>

namespace {

using Span = TimeScale::Span;

constexpr std::size_t mostFolds = 12;
constexpr double leastFolded = 0.04;  // of what is not folded yet

U64 length(const Span& span) {
  return span.endNs - span.beginNs;
}

bool earlier(const Span& a, const Span& b) {
  return a.beginNs < b.beginNs;
}

// Where nothing happens, the longest first.
std::vector<Span> gapsBetween(std::vector<Span> busy) {
  std::sort(busy.begin(), busy.end(), earlier);
  std::vector<Span> gaps;
  U64 reached = busy.empty() ? 0 : busy.front().endNs;
  for (const Span& span : busy) {
    if (span.beginNs > reached) gaps.push_back({reached, span.beginNs});
    reached = std::max(reached, span.endNs);
  }
  std::stable_sort(gaps.begin(), gaps.end(),
                   [](const Span& a, const Span& b) { return length(a) > length(b); });
  return gaps;
}

}  // namespace

TimeScale::TimeScale(std::vector<Span> busy, Span whole, double from, double to) {
  std::vector<Span> folds;
  U64 shown = length(whole);
  for (const Span& gap : gapsBetween(std::move(busy))) {
    const auto least = leastFolded * static_cast<double>(shown);
    if (folds.size() == mostFolds || static_cast<double>(length(gap)) < least) break;
    folds.push_back(gap);
    shown -= length(gap);
  }
  std::sort(folds.begin(), folds.end(), earlier);
  const double room = to - from - foldWidth * static_cast<double>(folds.size());
  nsPerUnit_ = static_cast<double>(std::max<U64>(shown, 1)) / room;
  double place = from;
  U64 time = whole.beginNs;
  const auto add = [&](U64 endNs, bool folded) {
    const double width =
        folded ? foldWidth : static_cast<double>(length({time, endNs})) / nsPerUnit_;
    parts_.push_back({{time, endNs}, place, place + width, folded});
    place += width;
    time = endNs;
  };
  for (const Span& fold : folds) {
    add(fold.beginNs, false);
    add(fold.endNs, true);
  }
  add(whole.endNs, false);
}

double TimeScale::at(U64 timeNs) const {
  const auto next =
      std::upper_bound(parts_.begin() + 1, parts_.end(), timeNs,
                       [](U64 time, const Part& part) { return time < part.beginNs; });
  const Part& part = *std::prev(next);
  if (timeNs <= part.beginNs) return part.from;
  if (timeNs >= part.endNs) return part.to;
  // Differences first: a double does not hold a nanosecond of today.
  const double share =
      static_cast<double>(timeNs - part.beginNs) / static_cast<double>(length(part));
  return part.from + (part.to - part.from) * share;
}
