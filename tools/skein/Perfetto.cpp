#include <ostream>
#include <set>

#include "CommandSlices.h"
#include "Export.h"
#include "Json.h"

namespace {

// Writes one event at a time: a recording's events need not fit into memory twice.
class EventList {
 public:
  EventList(std::ostream& out, U32 process, U64 originNs)
      : out_(out), process_(process), originNs_(originNs) {
    out_ << "{\"displayTimeUnit\":\"ns\",\"traceEvents\":[";
  }
  void finish() { out_ << "\n]}\n"; }

  void nameIs(const char* what, int thread, const std::string& name) {
    write({{"ph", "M"}, {"name", what}, {"tid", thread}, {"args", {{"name", name}}}});
  }
  void slice(const CommandSlice& slice) {
    nlohmann::json arguments = {{"sequence", slice.command.sequence},
                                {"queue", slice.command.queue},
                                {"outcome", slice.command.outcome}};
    if (slice.announcedNs != 0) {
      arguments["waitedUs"] = static_cast<double>(slice.startNs - slice.announcedNs) / 1e3;
    }
    write({{"ph", "X"},
           {"cat", "command"},
           {"name", slice.command.type},
           {"tid", slice.thread},
           {"ts", at(slice.startNs)},
           {"dur", static_cast<double>(slice.endNs - slice.startNs) / 1e3},
           {"args", std::move(arguments)}});
  }
  void depth(const CommandNews& news, U64 timeNs) {
    write({{"ph", "C"},
           {"name", "queue depth " + news.queue},
           {"tid", 0},
           {"ts", at(timeNs)},
           {"args", {{"commands", news.depth}}}});
  }
  void instant(const Skein::Record& record) {
    std::string text;
    record.appendText(text);
    write({{"ph", "i"},
           {"s", "t"},
           {"cat", record.site->facility},
           {"name", record.site->function},
           {"tid", record.thread},
           {"ts", at(record.timeNs)},
           {"args", {{"text", text}, {"level", record.level}}}});
  }

 private:
  // Microseconds from the first record on: a double holds them to the nanosecond.
  double at(U64 timeNs) const { return static_cast<double>(timeNs - originNs_) / 1e3; }

  void write(nlohmann::json event) {
    event["pid"] = process_;
    out_ << (first_ ? "\n" : ",\n") << textOf(event);
    first_ = false;
  }

  std::ostream& out_;
  const U32 process_;
  const U64 originNs_;
  bool first_ = true;
};

void writeEvents(const Recording& recording, std::ostream& out) {
  const auto& records = recording.records();
  const U32 process = recording.reader().counters().pid;
  EventList events(out, process, records.empty() ? 0 : records.front().timeNs);
  CommandSlices slices;
  std::set<int> threads;
  for (const Skein::Record& record : records) {
    if (threads.insert(record.thread).second) {
      events.nameIs("thread_name", record.thread, "thread " + std::to_string(record.thread));
    }
    const auto news = commandNewsOf(record);
    if (!news) {
      events.instant(record);
      continue;
    }
    events.depth(*news, record.timeNs);
    if (const auto slice = slices.newsIs(*news, record.thread, record.timeNs)) {
      events.slice(*slice);
    } else if (news->ends) {
      events.instant(record);
    }
  }
  if (!records.empty()) {
    if (const auto slice = slices.inFlight(records.back().timeNs)) events.slice(*slice);
  }
  events.finish();
}

}  // namespace

int exportPerfetto(const Recording& recording, const std::string& path) {
  return writeTo(path, [&](std::ostream& out) { writeEvents(recording, out); });
}
