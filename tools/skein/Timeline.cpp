#include "Timeline.h"

#include <algorithm>
#include <ctime>

Timeline timelineOf(const Recording& recording) {
  Timeline timeline;
  CommandSlices slices;
  std::map<std::string, U64> depthOf;  // by queue
  U64 waiting = 0;
  const auto add = [&](CommandSlice slice) {
    ++timeline.counts[slice.command.outcome];
    auto& list = slice.command.outcome == "dropped" ? timeline.dropped : timeline.served;
    list.push_back(std::move(slice));
  };
  for (const Skein::Record& record : recording.records()) {
    const auto news = commandNewsOf(record);
    if (!news) continue;
    if (timeline.beginNs == 0) timeline.beginNs = record.timeNs;
    timeline.endNs = record.timeNs;
    U64& depth = depthOf[news->queue];
    waiting = waiting - depth + news->depth;
    depth = news->depth;
    timeline.depths.push_back({record.timeNs, waiting});
    if (auto slice = slices.newsIs(*news, record.thread, record.timeNs)) add(std::move(*slice));
  }
  if (auto slice = slices.inFlight(timeline.endNs)) add(std::move(*slice));
  for (const CommandSlice& slice : timeline.served) {
    timeline.beginNs = std::min(timeline.beginNs, slice.startNs);
  }
  return timeline;
}

std::string dateOf(U64 timeNs) {
  const auto seconds = static_cast<std::time_t>(timeNs / 1000000000ULL);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
  return text;
}
