#include "CommandSlices.h"

#include <algorithm>

namespace {

std::optional<U64> numberOf(const Skein::Value& value) {
  if (const auto* number = std::get_if<unsigned int>(&value)) return *number;
  if (const auto* number = std::get_if<unsigned long long>(&value)) return *number;
  if (const auto* number = std::get_if<int>(&value)) return static_cast<U64>(*number);
  if (const auto* number = std::get_if<long long>(&value)) return static_cast<U64>(*number);
  return std::nullopt;
}

std::optional<CommandNews> newsFrom(const CommandPoint& point, const Skein::Record& record) {
  const auto values = record.arguments();
  const auto number = [&](int index) -> std::optional<U64> {
    if (static_cast<std::size_t>(index) >= values.size()) return std::nullopt;
    return numberOf(values[static_cast<std::size_t>(index)]);
  };
  const auto text = [&](int index) {
    if (index < 0 || static_cast<std::size_t>(index) >= values.size()) return std::string();
    const auto* view = std::get_if<std::string_view>(&values[static_cast<std::size_t>(index)]);
    return view ? std::string(*view) : std::string();
  };
  const auto sequence = number(point.sequence);
  const auto depth = number(point.depth);
  if (!sequence || !depth) return std::nullopt;
  return CommandNews{point.ends,        *sequence,           text(point.type),
                     text(point.queue), text(point.outcome), *depth};
}

}  // namespace

std::optional<CommandNews> commandNewsOf(const Skein::Record& record) {
  if (record.site->facility != commandFacility) return std::nullopt;
  for (const CommandPoint& point : commandPoints) {
    if (record.site->text == point.text) return newsFrom(point, record);
  }
  return std::nullopt;
}

std::optional<CommandSlice> CommandSlices::newsIs(const CommandNews& news, int thread, U64 timeNs) {
  const auto known = std::find_if(announced_.begin(), announced_.end(), [&](const Announced& one) {
    return one.news.sequence == news.sequence;
  });
  if (!news.ends) {
    if (known == announced_.end()) announced_.push_back({news, thread, timeNs});
    return std::nullopt;
  }
  const U64 announcedNs = known == announced_.end() ? 0 : known->timeNs;
  if (known != announced_.end()) announced_.erase(known);
  const U64 startNs = std::max(announcedNs, previousEndNs_);
  previousEndNs_ = timeNs;
  if (startNs == 0) return std::nullopt;
  return CommandSlice{news, thread, std::min(startNs, timeNs), timeNs, announcedNs};
}

std::optional<CommandSlice> CommandSlices::inFlight(U64 nowNs) const {
  if (announced_.empty()) return std::nullopt;
  const Announced& first = announced_.front();
  CommandSlice slice{first.news, first.thread, std::max(first.timeNs, previousEndNs_), nowNs,
                     first.timeNs};
  slice.command.outcome = "in flight";
  slice.startNs = std::min(slice.startNs, nowNs);
  return slice;
}
