#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

#include "CommandSlices.h"
#include "Export.h"
#include "Json.h"

// The commands of a recording as a picture: a lane per queue with a bar per command, and under it
// how many commands waited.
namespace {

constexpr int width = 960;
constexpr int left = 90;
constexpr int laneHeight = 34;
constexpr int top = 40;
constexpr int depthHeight = 70;

struct Timeline {
  std::vector<CommandSlice> slices;
  std::vector<std::pair<U64, U64>> depths;  // time, commands announced and not ended
  U64 beginNs = 0;
  U64 endNs = 0;
};

Timeline timelineOf(const Recording& recording) {
  Timeline timeline;
  CommandSlices slices;
  std::map<std::string, U64> depthOf;  // by queue
  for (const Skein::Record& record : recording.records()) {
    const auto news = commandNewsOf(record);
    if (!news) continue;
    if (timeline.beginNs == 0) timeline.beginNs = record.timeNs;
    timeline.endNs = record.timeNs;
    depthOf[news->queue] = news->depth;
    U64 waiting = 0;
    for (const auto& [queue, depth] : depthOf) waiting += depth;
    timeline.depths.push_back({record.timeNs, waiting});
    if (auto slice = slices.newsIs(*news, record.thread, record.timeNs)) {
      timeline.slices.push_back(*slice);
    }
  }
  if (auto slice = slices.inFlight(timeline.endNs)) timeline.slices.push_back(*slice);
  for (const CommandSlice& slice : timeline.slices) {
    timeline.beginNs = std::min(timeline.beginNs, slice.startNs);
  }
  return timeline;
}

const char* colourOf(const std::string& outcome) {
  if (outcome == "ok") return "#3a7d44";
  if (outcome == "refused") return "#d9a406";
  if (outcome == "in flight") return "#7a8aa0";
  return "#b3261e";
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

class Picture {
 public:
  explicit Picture(const Timeline& timeline) : timeline_(timeline) {
    for (const CommandSlice& slice : timeline.slices) {
      lanes_.try_emplace(slice.command.queue, static_cast<int>(lanes_.size()));
    }
  }

  void write(std::ostream& out) const {
    const int bottom = top + static_cast<int>(lanes_.size()) * laneHeight;
    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\""
        << bottom + depthHeight + 50 << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    legend(out);
    axis(out, bottom + depthHeight + 20);
    for (const auto& [queue, lane] : lanes_) {
      out << "<text x=\"8\" y=\"" << top + lane * laneHeight + 20 << "\">" << escaped(queue)
          << "</text>\n";
    }
    for (const CommandSlice& slice : timeline_.slices) bar(out, slice);
    depth(out, bottom + depthHeight + 10);
    out << "</svg>\n";
  }

 private:
  double x(U64 timeNs) const {
    const double span =
        std::max<double>(1, static_cast<double>(timeline_.endNs - timeline_.beginNs));
    return left + (width - left - 20) * static_cast<double>(timeNs - timeline_.beginNs) / span;
  }

  static void legend(std::ostream& out) {
    int at = left;
    for (const char* outcome : {"ok", "refused", "failed", "in flight"}) {
      out << "<rect x=\"" << at << "\" y=\"12\" width=\"12\" height=\"12\" fill=\""
          << colourOf(outcome) << "\"/><text x=\"" << at + 17 << "\" y=\"22\">" << outcome
          << "</text>\n";
      at += 90;
    }
  }

  // A round step of time that gives five to twelve marks.
  static double stepFor(double span) {
    double step = std::pow(10, std::floor(std::log10(span / 5)));
    while (span / step > 12) step *= span / step > 24 ? 5 : 2;
    return step;
  }

  void axis(std::ostream& out, int y) const {
    const double spanUs = static_cast<double>(timeline_.endNs - timeline_.beginNs) / 1e3;
    if (spanUs <= 0) return;
    const double step = stepFor(spanUs);
    for (double us = 0; us <= spanUs; us += step) {
      const double at = x(timeline_.beginNs + static_cast<U64>(us * 1e3));
      out << "<line x1=\"" << at << "\" x2=\"" << at << "\" y1=\"" << top - 6 << "\" y2=\"" << y
          << "\" stroke=\"#dddddd\"/><text x=\"" << at << "\" y=\"" << y + 16
          << "\" text-anchor=\"middle\" fill=\"#555555\">" << us / 1e3 << " ms</text>\n";
    }
  }

  void bar(std::ostream& out, const CommandSlice& slice) const {
    const double from = x(slice.startNs);
    const double length = std::max(1.0, x(slice.endNs) - from);
    const double us = static_cast<double>(slice.endNs - slice.startNs) / 1e3;
    out << "<rect x=\"" << from << "\" y=\""
        << top + lanes_.at(slice.command.queue) * laneHeight + 4 << "\" width=\"" << length
        << "\" height=\"" << laneHeight - 10 << "\" fill=\"" << colourOf(slice.command.outcome)
        << "\" stroke=\"white\" stroke-width=\"0.5\"><title>" << slice.command.sequence << ' '
        << escaped(slice.command.type) << ", " << escaped(slice.command.outcome) << ", " << us
        << " us</title></rect>\n";
  }

  void depth(std::ostream& out, int y) const {
    U64 most = 1;
    for (const auto& [timeNs, count] : timeline_.depths) most = std::max(most, count);
    const auto height = [&](U64 count) {
      return y - (depthHeight - 20) * static_cast<double>(count) / static_cast<double>(most);
    };
    out << "<text x=\"8\" y=\"" << y - 20 << "\">waiting</text><text x=\"8\" y=\"" << y - 5
        << "\" fill=\"#555555\">most " << most << "</text>\n<path fill=\"#c8d6e8\" d=\"M" << left
        << ' ' << y;
    double last = y;
    for (const auto& [timeNs, count] : timeline_.depths) {
      out << " L" << x(timeNs) << ' ' << last << " L" << x(timeNs) << ' ' << height(count);
      last = height(count);
    }
    out << " L" << x(timeline_.endNs) << ' ' << y << " Z\"/>\n";
  }

  const Timeline& timeline_;
  std::map<std::string, int> lanes_;
};

}  // namespace

int exportSvg(const Recording& recording, const std::string& path) {
  const Timeline timeline = timelineOf(recording);
  if (timeline.slices.empty()) {
    std::fprintf(stderr,
                 "skein: the file has no commands to draw: they come from the agent's kit, "
                 "facility %s\n",
                 commandFacility);
    return 1;
  }
  return writeTo(path, [&](std::ostream& out) { Picture(timeline).write(out); });
}
