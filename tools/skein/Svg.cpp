#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>

#include "Export.h"
#include "Json.h"
#include "TimeScale.h"
#include "Timeline.h"

// The commands of a recording as a picture: a lane per queue with a bar per command, and under it
// how many commands waited. Where bars would be too narrow to be seen they are counted together,
// column by column; whatever has not ended well stands out at any length.
namespace {

constexpr int width = 960;
constexpr int left = 120;
constexpr int right = width - 20;
constexpr int laneHeight = 38;
constexpr int barHeight = 24;
constexpr int dropHeight = 5;
constexpr int top = 92;
constexpr int depthHeight = 70;
constexpr double narrowest = 3;          // a bar of its own
constexpr double markWidth = 3;          // of what has not ended well, at least
constexpr std::size_t longestName = 13;  // characters beside a lane

// From what is drawn first to what stands on top.
struct Look {
  const char* outcome;
  const char* colour;
  const char* text;  // in the legend
};
constexpr Look looks[] = {
    {"ok", "#3a7d44", "ok"},
    {"in flight", "#5b7fb5", "in flight at the end"},
    {"dropped", "#7b4fa3", "dropped, never sent"},
    {"refused", "#d98f00", "refused"},
    {"undecodable", "#8c1d7a", "undecodable"},
    {"failed", "#c3201a", "failed"},
};
constexpr Look otherLook = {"", "#c3201a", "other"};

const Look& lookOf(const std::string& outcome) {
  const auto is = [&](const Look& look) { return outcome == look.outcome; };
  const auto found = std::find_if(std::begin(looks), std::end(looks), is);
  return found == std::end(looks) ? otherLook : *found;
}

int rankOf(const std::string& outcome) {
  const Look& look = lookOf(outcome);
  return &look == &otherLook ? static_cast<int>(std::size(looks)) : static_cast<int>(&look - looks);
}

// Those are many, and counted together where they are too short to be seen; each other stands out.
bool isUsual(const std::string& outcome) {
  return outcome == "ok";
}

std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : readable(text)) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// The name as far as there is room beside its lane, not cut within a character.
std::string shortened(const std::string& name) {
  std::string shown = readable(name);
  std::size_t characters = 0;
  for (std::size_t at = 0; at < shown.size(); ++at) {
    if ((static_cast<unsigned char>(shown[at]) & 0xc0) == 0x80) continue;
    if (++characters > longestName) return shown.substr(0, at) + "\xe2\x80\xa6";
  }
  return shown;
}

std::string plural(U64 count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string duration(double ns) {
  const auto [divisor, unit] = ns < 1e6   ? std::pair(1e3, " \xc2\xb5s")
                               : ns < 1e9 ? std::pair(1e6, " ms")
                                          : std::pair(1e9, " s");
  std::ostringstream text;
  text.precision(4);
  text << ns / divisor << unit;
  return text.str();
}

std::vector<TimeScale::Span> busyTimes(const Timeline& timeline) {
  std::vector<TimeScale::Span> busy;
  for (const auto* list : {&timeline.served, &timeline.dropped}) {
    for (const CommandSlice& slice : *list) {
      const U64 since =
          slice.announcedNs ? std::min(slice.announcedNs, slice.startNs) : slice.startNs;
      busy.push_back({std::max(since, timeline.beginNs), slice.endNs});
    }
  }
  return busy;
}

// What falls into one column of a lane.
struct Column {
  double busyNs = 0;
  U64 commands = 0;
};
using Place = std::pair<std::string, int>;  // queue, and column of marks
struct Mark {
  U64 commands = 0;
  std::string first;  // one of them
};

class Picture {
 public:
  Picture(const Timeline& timeline, const std::string& name)
      : timeline_(timeline),
        name_(name),
        scale_(busyTimes(timeline), {timeline.beginNs, timeline.endNs}, left, right) {
    for (const auto* list : {&timeline.served, &timeline.dropped}) {
      for (const CommandSlice& slice : *list) {
        lanes_.try_emplace(slice.command.queue, static_cast<int>(lanes_.size()));
      }
    }
  }

  void write(std::ostream& out) const {
    const int bottom = top + static_cast<int>(lanes_.size()) * laneHeight;
    const std::string title = "Commands of " + escaped(name_);
    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" width=\"" << width
        << "\" height=\"" << bottom + depthHeight + 50
        << "\" font-family=\"sans-serif\" font-size=\"12\">\n<title>" << title << "</title>\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n<text x=\"8\" y=\"22\" "
           "font-size=\"16\" font-weight=\"bold\">"
        << title << "</text>\n<text x=\"8\" y=\"42\" fill=\"#555555\">" << summary() << "</text>\n";
    legend(out);
    axis(out, bottom + depthHeight + 20);
    names(out);
    columns(out);
    bars(out);
    marks(out);
    depth(out, bottom + depthHeight + 10);
    out << "</svg>\n";
  }

 private:
  static std::string text(double x, double y, const std::string& words, const char* more = "") {
    std::ostringstream out;
    out << "<text x=\"" << x << "\" y=\"" << y << '"' << more << '>' << words << "</text>\n";
    return out.str();
  }
  static void rect(std::ostream& out, const char* kind, double x, double y, double w, double h,
                   const char* colour, const std::string& title) {
    out << "<rect class=\"" << kind << "\" x=\"" << x << "\" y=\"" << y << "\" width=\"" << w
        << "\" height=\"" << h << "\" fill=\"" << colour << "\"><title>" << title
        << "</title></rect>\n";
  }
  double laneTop(const std::string& queue) const { return top + lanes_.at(queue) * laneHeight + 4; }
  double widthOf(const CommandSlice& slice) const {
    return scale_.at(slice.endNs) - scale_.at(slice.startNs);
  }
  // What has not ended well has one only where the marks of its neighbours, at either end, leave
  // enough of it to be seen.
  bool hasBar(const CommandSlice& slice) const {
    return widthOf(slice) >=
           (isUsual(slice.command.outcome) ? narrowest : narrowest + 2 * markWidth);
  }
  static std::string described(const CommandSlice& slice) {
    std::string words = std::to_string(slice.command.sequence) + ' ' + escaped(slice.command.type) +
                        ", " + escaped(slice.command.outcome);
    if (slice.command.outcome == "dropped") return words;
    return words + ", " + duration(static_cast<double>(slice.endNs - slice.startNs));
  }

  std::string summary() const {
    U64 commands = 0;
    for (const auto& [outcome, count] : timeline_.counts) commands += count;
    return dateOf(timeline_.beginNs) + ", " +
           duration(static_cast<double>(timeline_.endNs - timeline_.beginNs)) + ", " +
           plural(commands, "command");
  }

  void legend(std::ostream& out) const {
    std::map<int, std::pair<const Look*, U64>> entries;  // by rank
    for (const auto& [outcome, count] : timeline_.counts) {
      auto& entry = entries[rankOf(outcome)];
      entry.first = &lookOf(outcome);
      entry.second += count;
    }
    double at = 8;
    for (const auto& [rank, entry] : entries) {
      const std::string words = std::to_string(entry.second) + " " + entry.first->text;
      out << "<rect x=\"" << at << "\" y=\"54\" width=\"12\" height=\"12\" fill=\""
          << entry.first->colour << "\"/>" << text(at + 17, 64, words);
      at += 40 + 7.0 * static_cast<double>(words.size());
    }
  }

  // A round step of time, in nanoseconds, that gives at most twelve marks.
  static U64 stepFor(double spanNs) {
    double step = std::max(1.0, std::pow(10, std::floor(std::log10(spanNs / 5))));
    while (spanNs / step > 12) step *= spanNs / step > 24 ? 5 : 2;
    return static_cast<U64>(step);
  }

  // Time since the first record, in each part that is not folded.
  void axis(std::ostream& out, int y) const {
    const U64 step = stepFor(scale_.nsPerUnit() * (right - left));
    double lastLabel = 0;
    for (const TimeScale::Part& part : scale_.parts()) {
      if (part.folded) {
        fold(out, part, y);
        continue;
      }
      const U64 begin = part.beginNs - timeline_.beginNs;
      const U64 end = part.endNs - timeline_.beginNs;
      for (U64 ns = (begin + step - 1) / step * step; ns <= end; ns += step) {
        const double at = scale_.at(timeline_.beginNs + ns);
        out << "<line x1=\"" << at << "\" x2=\"" << at << "\" y1=\"" << top - 6 << "\" y2=\"" << y
            << "\" stroke=\"#dddddd\"/>\n";
        if (at < lastLabel + 62) continue;
        out << text(at, y + 16, duration(static_cast<double>(ns)),
                    " text-anchor=\"middle\" fill=\"#555555\"");
        lastLabel = at;
      }
    }
  }
  void fold(std::ostream& out, const TimeScale::Part& part, int y) const {
    const std::string idle = duration(static_cast<double>(part.endNs - part.beginNs)) + " idle";
    out << "<rect class=\"fold\" x=\"" << part.from + 4 << "\" y=\"" << top - 6 << "\" width=\""
        << TimeScale::foldWidth - 8 << "\" height=\"" << y - top + 6
        << "\" fill=\"#eeeeee\"><title>" << idle << "</title></rect>\n"
        << text((part.from + part.to) / 2, top - 10, idle,
                " text-anchor=\"middle\" font-size=\"10\" fill=\"#777777\"");
  }

  void names(std::ostream& out) const {
    for (const auto& [queue, lane] : lanes_) {
      out << "<text x=\"8\" y=\"" << top + lane * laneHeight + 21 << "\">"
          << escaped(shortened(queue)) << "<title>" << escaped(queue) << "</title></text>\n";
    }
  }

  // The commands too short for a bar of their own: how much of each column's time they took.
  void columns(std::ostream& out) const {
    std::map<std::string, std::map<int, Column>> columnsOf;
    for (const CommandSlice& slice : timeline_.served) {
      if (hasBar(slice) || !isUsual(slice.command.outcome)) continue;
      auto& columns = columnsOf[slice.command.queue];
      const double from = scale_.at(slice.startNs);
      const double to = scale_.at(slice.endNs);
      const int last = static_cast<int>(to);
      for (int at = static_cast<int>(from); at <= last; ++at) {
        const double inside = std::min<double>(to, at + 1) - std::max<double>(from, at);
        columns[at].busyNs += inside * scale_.nsPerUnit();
      }
      ++columns[last].commands;
    }
    for (const auto& [queue, columns] : columnsOf) {
      for (const auto& [at, column] : columns) {
        const double share = std::clamp(column.busyNs / scale_.nsPerUnit(), 0.2, 1.0);
        const double height = share * barHeight;
        rect(out, "column", at, laneTop(queue) + barHeight - height, 1, height, lookOf("ok").colour,
             plural(column.commands, "command") + ", " + duration(column.busyNs));
      }
    }
  }

  void bars(std::ostream& out) const {
    for (const CommandSlice& slice : timeline_.served) {
      if (!hasBar(slice)) continue;
      // A blank of half a unit to the next one, where the bar can spare it.
      const double w = widthOf(slice) - (widthOf(slice) > 6 ? 0.5 : 0);
      rect(out, "bar", scale_.at(slice.startNs), laneTop(slice.command.queue), w, barHeight,
           lookOf(slice.command.outcome).colour, described(slice));
    }
  }

  // On top of everything: what has not ended well and has no bar. What falls into one place shares
  // its height.
  void marks(std::ostream& out) const {
    std::map<Place, std::map<int, Mark>> dropped;  // by rank
    std::map<Place, std::map<int, Mark>> served;
    const auto add = [&](std::map<Place, std::map<int, Mark>>& marks, const CommandSlice& slice) {
      const Place place{slice.command.queue, static_cast<int>(scale_.at(slice.endNs) / markWidth)};
      Mark& mark = marks[place][rankOf(slice.command.outcome)];
      if (mark.commands++ == 0) mark.first = described(slice);
    };
    for (const CommandSlice& slice : timeline_.dropped) add(dropped, slice);
    for (const CommandSlice& slice : timeline_.served) {
      if (!hasBar(slice) && !isUsual(slice.command.outcome)) add(served, slice);
    }
    for (const auto& [place, marks] : dropped) {
      stack(out, place, marks, laneTop(place.first) + barHeight + 2, dropHeight);
    }
    for (const auto& [place, marks] : served) {
      stack(out, place, marks, laneTop(place.first) - 2, barHeight + 4);
    }
  }
  // Marks one below the other, the worst on top.
  static void stack(std::ostream& out, const Place& place, const std::map<int, Mark>& marks,
                    double y, double height) {
    const double each = height / static_cast<double>(marks.size());
    y += height;
    for (const auto& [rank, mark] : marks) {
      const Look& look = rank < static_cast<int>(std::size(looks)) ? looks[rank] : otherLook;
      std::string title = mark.first;
      if (mark.commands > 1) title += ", and " + std::to_string(mark.commands - 1) + " more";
      y -= each;
      rect(out, "mark", place.second * markWidth, y, markWidth, each, look.colour, title);
    }
  }

  // The most that waited at a time, column by column.
  void depth(std::ostream& out, int y) const {
    std::map<int, U64> mostAt;
    U64 most = 1;
    U64 before = 0;
    int column = left;
    for (const auto& [timeNs, count] : timeline_.depths) {
      const int at = static_cast<int>(scale_.at(timeNs));
      for (; column < at; ++column) mostAt.try_emplace(column, before);
      U64& here = mostAt.try_emplace(at, before).first->second;
      here = std::max(here, count);
      most = std::max(most, count);
      before = count;
    }
    out << text(8, y - 20, "waiting")
        << text(8, y - 5, "most " + std::to_string(most), " fill=\"#555555\"")
        << "<path fill=\"#c8d6e8\" d=\"M" << left << ' ' << y;
    for (const auto& [at, count] : mostAt) {
      const double height =
          (depthHeight - 20) * static_cast<double>(count) / static_cast<double>(most);
      out << " L" << at << ' ' << y - height << " L" << at + 1 << ' ' << y - height;
    }
    out << " L" << scale_.at(timeline_.endNs) << ' ' << y << " Z\"/>\n";
  }

  const Timeline& timeline_;
  const std::string name_;
  const TimeScale scale_;
  std::map<std::string, int> lanes_;
};

}  // namespace

int exportSvg(const Recording& recording, const std::string& path) {
  const Timeline timeline = timelineOf(recording);
  if (timeline.served.empty() && timeline.dropped.empty()) {
    std::fprintf(stderr,
                 "skein: the file has no commands to draw: they come from the agent's kit, "
                 "facility %s\n",
                 commandFacility);
    return 1;
  }
  const std::string name = std::filesystem::path(recording.reader().path()).filename();
  return writeTo(path, [&](std::ostream& out) { Picture(timeline, name).write(out); });
}
