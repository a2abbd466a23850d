#include <filesystem>
#include <map>
#include <ostream>
#include <set>

#include "CommandSlices.h"
#include "Export.h"
#include "Json.h"
#include "Timeline.h"

namespace {

// A name of the viewers' own palette.
const char* colourOf(const std::string& outcome) {
  if (outcome == "ok") return "good";
  if (outcome == "refused") return "bad";
  return outcome == "in flight" ? "thread_state_running" : "terrible";
}

// The main thread has the process's number; commands end on their client's worker, unless they are
// dropped.
std::map<int, std::string> threadNames(const std::vector<Skein::Record>& records, U32 process) {
  std::map<int, std::string> names{{static_cast<int>(process), "main"}};
  for (const Skein::Record& record : records) {
    const auto news = commandNewsOf(record);
    if (news && news->ends && news->outcome != "dropped")
      names.try_emplace(record.thread, "worker");
  }
  return names;
}

// Writes one event at a time: a recording's events need not fit into memory twice.
class EventList {
 public:
  EventList(std::ostream& out, U32 process, U64 originNs)
      : out_(out), process_(process), originNs_(originNs) {
    out_ << "{\"displayTimeUnit\":\"ns\",\"otherData\":"
         << textOf({{"origin", dateOf(originNs)}, {"originNs", std::to_string(originNs)}})
         << ",\"traceEvents\":[";
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
           {"cname", colourOf(slice.command.outcome)},
           {"args", std::move(arguments)}});
    const auto announced = flows_.find(slice.command.sequence);
    if (announced == flows_.end()) return;
    flow("f", announced->second, slice.thread, slice.startNs);
    flows_.erase(announced);
  }
  // Where the way of a command to its service begins. A way leads from slice to slice, and this
  // one is as short as can be. Another run of an agent counts its commands from one again.
  void announcement(const CommandNews& news, const Skein::Record& record) {
    nlohmann::json event = told(record);
    event["ph"] = "X";
    event["dur"] = 0.001;
    write(std::move(event));
    flow("s", flows_[news.sequence] = ++ways_, record.thread, record.timeNs);
  }
  void depth(const CommandNews& news, U64 timeNs) {
    write({{"ph", "C"},
           {"name", "queue depth " + news.queue},
           {"tid", 0},
           {"ts", at(timeNs)},
           {"args", {{"commands", news.depth}}}});
  }
  void instant(const Skein::Record& record) {
    nlohmann::json event = told(record);
    event["ph"] = "i";
    event["s"] = "t";
    write(std::move(event));
  }

 private:
  // Microseconds from the first record on: a double holds them to the nanosecond.
  double at(U64 timeNs) const { return static_cast<double>(timeNs - originNs_) / 1e3; }

  nlohmann::json told(const Skein::Record& record) const {
    std::string text;
    record.appendText(text);
    return {{"cat", record.site->facility},
            {"name", record.site->function},
            {"tid", record.thread},
            {"ts", at(record.timeNs)},
            {"args", {{"text", text}, {"level", record.level}}}};
  }

  void flow(const char* phase, U64 way, int thread, U64 timeNs) {
    write({{"ph", phase},
           {"cat", "command"},
           {"name", "announced"},
           {"id", way},
           {"tid", thread},
           {"ts", at(timeNs)},
           {"bp", "e"}});
  }

  void write(nlohmann::json event) {
    event["pid"] = process_;
    out_ << (first_ ? "\n" : ",\n") << textOf(event);
    first_ = false;
  }

  std::ostream& out_;
  const U32 process_;
  const U64 originNs_;
  bool first_ = true;
  std::map<U64, U64> flows_;  // the ways that have begun, by the command's sequence
  U64 ways_ = 0;
};

void writeEvents(const Recording& recording, std::ostream& out) {
  const auto& records = recording.records();
  const U32 process = recording.reader().counters().pid;
  EventList events(out, process, records.empty() ? 0 : records.front().timeNs);
  CommandSlices slices;
  std::set<int> threads;
  if (!records.empty()) {
    const std::string file = std::filesystem::path(recording.reader().path()).filename();
    events.nameIs("process_name", 0, file + " from " + dateOf(records.front().timeNs));
  }
  const std::map<int, std::string> names = threadNames(records, process);
  for (const Skein::Record& record : records) {
    if (threads.insert(record.thread).second) {
      const auto named = names.find(record.thread);
      events.nameIs(
          "thread_name", record.thread,
          named != names.end() ? named->second : "thread " + std::to_string(record.thread));
    }
    const auto news = commandNewsOf(record);
    if (!news) {
      events.instant(record);
      continue;
    }
    events.depth(*news, record.timeNs);
    const auto slice = slices.newsIs(*news, record.thread, record.timeNs);
    if (!news->ends) {
      events.announcement(*news, record);
    } else if (slice && news->outcome != "dropped") {
      events.slice(*slice);
    } else {
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
