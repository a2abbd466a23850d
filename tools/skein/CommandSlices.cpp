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
  if (news.ends) return ended(news, thread, timeNs);
  announced(news, thread, timeNs);
  return std::nullopt;
}

void CommandSlices::announced(const CommandNews& news, int thread, U64 timeNs) {
  // The worker may be done with a command before its announcement is written down.
  if (early_.erase(news.sequence) != 0) return;
  Queue& queue = open_[news.queue];
  queue.try_emplace(news.sequence, Announced{news, thread, timeNs});
  // Of older ones there are no more than the depth says; the ends of the others are lost.
  while (queue.size() > std::max<U64>(news.depth, 1)) queue.erase(queue.begin());
}

std::optional<CommandSlice> CommandSlices::ended(const CommandNews& news, int thread, U64 timeNs) {
  const auto known = open_[news.queue].extract(news.sequence);
  if (known.empty()) early_.insert(news.sequence);
  // What is dropped may have waited behind others.
  if (news.outcome != "dropped") {
    forgetBefore(news.sequence);
    worker_ = thread;
  }
  const U64 announcedNs = known.empty() ? 0 : known.mapped().timeNs;
  const U64 startNs = std::max(announcedNs, previousEndNs_);
  previousEndNs_ = timeNs;
  if (startNs == 0) return std::nullopt;
  return CommandSlice{news, thread, std::min(startNs, timeNs), timeNs, announcedNs};
}

void CommandSlices::forgetBefore(U64 sequence) {
  for (auto& [name, queue] : open_) queue.erase(queue.begin(), queue.lower_bound(sequence));
}

std::optional<CommandSlice> CommandSlices::inFlight(U64 nowNs) const {
  const Announced* first = nullptr;
  for (const auto& [name, queue] : open_) {
    if (queue.empty()) continue;
    const Announced& oldest = queue.begin()->second;
    if (!first || oldest.news.sequence < first->news.sequence) first = &oldest;
  }
  if (!first) return std::nullopt;
  CommandSlice slice{first->news, worker_.value_or(first->thread),
                     std::max(first->timeNs, previousEndNs_), nowNs, first->timeNs};
  slice.command.outcome = "in flight";
  slice.startNs = std::min(slice.startNs, nowNs);
  return slice;
}
