#include "Stat.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include <Lumo/TraceSink.h>

#include "Json.h"

namespace {

struct Count {
  int id;
  U64 records = 0;
};

struct Summary {
  U64 records = 0;
  U64 firstNs = 0;
  U64 lastNs = 0;
  std::map<int, U64> byThread;
  std::vector<Count> sites;  // of every described site, most records first
};

Summary summaryOf(Skein::Reader& reader, const Filter& filter) {
  Summary summary;
  std::map<int, U64> bySite;
  reader.read([&](const Skein::Record& record) {
    if (!filter.passes(record)) return;
    if (summary.records++ == 0) summary.firstNs = record.timeNs;
    summary.lastNs = record.timeNs;
    ++summary.byThread[record.thread];
    ++bySite[record.id];
  });
  for (std::size_t i = 0; i < reader.sites().size(); ++i) {
    const int id = static_cast<int>(i) + 1;
    if (reader.sites()[i]) summary.sites.push_back({id, bySite[id]});
  }
  std::stable_sort(summary.sites.begin(), summary.sites.end(),
                   [](const Count& a, const Count& b) { return a.records > b.records; });
  return summary;
}

std::string momentOf(U64 ns) {
  Lumo::TraceLine line;
  line.timeNs = ns;
  std::string text;
  Lumo::appendTraceLine(text, line);
  return text.substr(0, text.find(' '));
}

std::string shown(const std::string& text) {
  std::string line;
  Lumo::appendTraceText(line, text);
  return line;
}

U64 lostOf(const Skein::Reader::Counters& counters) {
  return counters.overwritten + counters.dropped + counters.behindGaps;
}

void printText(const Skein::Reader& reader, const Summary& summary, std::FILE* out) {
  const auto& counters = reader.counters();
  std::fprintf(out, "file        %llu bytes, made %s by process %u, %s\n", counters.fileSize,
               momentOf(counters.openedNs).c_str(), counters.pid,
               counters.multiThreaded ? "many threads" : "one thread");
  std::fprintf(out, "records     %llu", summary.records);
  if (summary.records != 0) {
    std::fprintf(out, " from %s to %s (%.6f s)", momentOf(summary.firstNs).c_str(),
                 momentOf(summary.lastNs).c_str(),
                 static_cast<double>(summary.lastNs - summary.firstNs) / 1e9);
  }
  std::fprintf(out,
               "\nlost        %llu (%llu made room for newer ones, %llu found no place, %llu are "
               "older than a gap)\n",
               lostOf(counters), counters.overwritten, counters.dropped, counters.behindGaps);
  for (const auto& [thread, records] : summary.byThread) {
    std::fprintf(out, "thread      %d: %llu records\n", thread, records);
  }
  std::fprintf(out, "\n%12s  %s\n", "records", "site");
  for (const Count& count : summary.sites) {
    const Skein::Site& site = *reader.sites()[static_cast<std::size_t>(count.id) - 1];
    std::fprintf(out, "%12llu  %s/%u %s:%d %s: %s\n", count.records, shown(site.facility).c_str(),
                 site.level, shown(site.file).c_str(), site.line, shown(site.function).c_str(),
                 shown(site.text).c_str());
  }
}

void printJson(const Skein::Reader& reader, const Summary& summary, std::FILE* out) {
  const auto& counters = reader.counters();
  nlohmann::json json = {{"fileSize", counters.fileSize},
                         {"openedNs", counters.openedNs},
                         {"pid", counters.pid},
                         {"multiThreaded", counters.multiThreaded},
                         {"records", summary.records},
                         {"firstNs", summary.firstNs},
                         {"lastNs", summary.lastNs},
                         {"overwritten", counters.overwritten},
                         {"dropped", counters.dropped},
                         {"behindGaps", counters.behindGaps},
                         {"lost", lostOf(counters)},
                         {"threads", nlohmann::json::array()},
                         {"sites", nlohmann::json::array()}};
  for (const auto& [thread, records] : summary.byThread) {
    json["threads"].push_back({{"thread", thread}, {"records", records}});
  }
  for (const Count& count : summary.sites) {
    const Skein::Site& site = *reader.sites()[static_cast<std::size_t>(count.id) - 1];
    json["sites"].push_back({{"id", count.id},
                             {"records", count.records},
                             {"facility", site.facility},
                             {"level", site.level},
                             {"file", site.file},
                             {"line", site.line},
                             {"function", site.function},
                             {"text", site.text}});
  }
  std::fprintf(out, "%s\n", textOf(json).c_str());
}

}  // namespace

void writeStat(Skein::Reader& reader, const Filter& filter, bool json, std::FILE* out) {
  const Summary summary = summaryOf(reader, filter);
  json ? printJson(reader, summary, out) : printText(reader, summary, out);
}

int stat(const std::string& path, Filter& filter, bool json) {
  filter.resolve(path);
  Skein::Reader reader(path);
  writeStat(reader, filter, json, stdout);
  filter.reportUnmatched(reader);
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "skein: cannot write to standard output: %s\n", std::strerror(errno));
    return 1;
  }
  const std::string problem = reader.problem();
  if (problem.empty()) return 0;
  std::fprintf(stderr, "skein: %s\n", problem.c_str());
  return 1;
}
