#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "Process.h"
#include "TraceFixture.h"

using nlohmann::json;

class SkeinExport : public TraceTest {
 protected:
  // A file with 21 announced commands of which 20 ended, and records of other points.
  void makeCommands() {
    ASSERT_EQ(run({TRACE_PROGRAM, "commands", path}).status, 0);
    records = recordsIn(path).size();
  }
  Outcome exportTo(const std::string& format, const std::string& target) const {
    return run({SKEIN_PROGRAM, "export", "--format", format, path, target});
  }

  std::size_t records = 0;
};

namespace {

// What the format demands of an event, as its viewers read it.
void expectValid(const json& event) {
  ASSERT_TRUE(event.is_object());
  ASSERT_TRUE(event.at("ph").is_string());
  const std::string phase = event["ph"];
  EXPECT_TRUE(event.at("pid").is_number_integer());
  EXPECT_TRUE(event.at("tid").is_number_integer());
  EXPECT_FALSE(event.at("name").get<std::string>().empty());
  ASSERT_NE(std::string("XiCMsf").find(phase), std::string::npos) << phase;
  if (phase == "M") {
    EXPECT_TRUE(event.at("args").at("name").is_string());
    return;
  }
  EXPECT_GE(event.at("ts").get<double>(), 0);
  if (phase == "X") {
    EXPECT_GE(event.at("dur").get<double>(), 0);
  }
  if (phase == "s" || phase == "f") {
    EXPECT_TRUE(event.at("id").is_number_integer());
  }
  if (phase == "C") {
    for (const auto& [name, value] : event.at("args").items()) EXPECT_TRUE(value.is_number());
  }
  if (phase == "i") {
    EXPECT_EQ(event.at("s"), "t");
  }
}

}  // namespace

TEST_F(SkeinExport, ThePerfettoFileIsValid) {
  makeCommands();
  const std::string target = folder.file("trace.json");
  const Outcome outcome = exportTo("perfetto", target);
  EXPECT_EQ(outcome.status, 0) << outcome.error;
  const json trace = json::parse(std::ifstream(target));
  ASSERT_TRUE(trace.at("traceEvents").is_array());
  for (const json& event : trace["traceEvents"]) expectValid(event);
  EXPECT_EQ(json::parse(exportTo("perfetto", "-").out), trace);
}

TEST_F(SkeinExport, EachCommandIsASliceAfterItsPredecessor) {
  makeCommands();
  const json trace = json::parse(exportTo("perfetto", "-").out);
  std::vector<json> slices;
  std::map<std::string, int> counts;
  std::set<int> tracks;
  std::set<int> named;
  double announced = -1;
  for (const json& event : trace["traceEvents"]) {
    const std::string phase = event["ph"];
    ++counts[phase];
    if (phase == "X" && event["cat"] == "command") slices.push_back(event);
    if (phase == "M") named.insert(event["tid"].get<int>());
    if (phase == "X" || phase == "i") tracks.insert(event["tid"].get<int>());
    if (phase == "C" && event["args"]["commands"] == 20 && announced < 0) announced = event["ts"];
  }
  ASSERT_EQ(slices.size(), 21U);
  EXPECT_EQ(counts["C"], 41);
  EXPECT_EQ(counts["X"], 42);   // and the announcements
  EXPECT_EQ(counts["i"], 21);   // records of other points
  EXPECT_EQ(named.size(), 3U);  // two threads and the process
  EXPECT_TRUE(std::includes(named.begin(), named.end(), tracks.begin(), tracks.end()));
  EXPECT_EQ(slices[0]["ts"], 0.0) << "the first was served from its announcement on";
  for (std::size_t i = 0; i < 20; ++i) {
    EXPECT_EQ(slices[i]["name"], "createModule");
    EXPECT_EQ(slices[i]["args"]["sequence"], i + 1);
    EXPECT_EQ(slices[i]["args"]["queue"], "q1");
    EXPECT_EQ(slices[i]["args"]["outcome"], (i + 1) % 5 ? "answered" : "failed");
    if (i == 0) continue;
    const double end = slices[i - 1]["ts"].get<double>() + slices[i - 1]["dur"].get<double>();
    EXPECT_NEAR(slices[i]["ts"].get<double>(), end, 0.001) << "one command is in flight at a time";
  }
  EXPECT_EQ(slices[20]["args"]["outcome"], "in flight");
  EXPECT_EQ(slices[20]["name"], "getVersion");
  EXPECT_EQ(slices[20]["tid"], slices[0]["tid"]) << "the worker's, as all the others";
}

TEST_F(SkeinExport, PerfettoIsToldTheNamesTheWallClockAndTheWayOfEachCommand) {
  makeCommands();
  const json trace = json::parse(exportTo("perfetto", "-").out);
  const std::vector<Seen> seen = recordsIn(path);
  const std::string origin = trace.at("otherData").at("origin");
  EXPECT_EQ(origin.substr(0, 10) + "T" + origin.substr(11, 8), seen[0].line.substr(0, 19));
  std::map<std::string, std::map<int, std::string>> names;  // of what, by thread
  std::map<int, json> announced;                            // by way
  std::map<int, json> served;
  json previous;
  for (const json& event : trace["traceEvents"]) {
    const std::string phase = event["ph"];
    if (phase == "M") names[event["name"]][event["tid"]] = event["args"]["name"];
    if (phase == "s") announced[event["id"]] = event;
    if (phase == "f") served[event["id"]] = event;
    if (phase == "s" || phase == "f") {
      // A viewer takes what begins there and then for the end of the arrow.
      EXPECT_EQ(previous["ph"], "X");
      EXPECT_EQ(previous["tid"], event["tid"]);
      EXPECT_EQ(previous["ts"], event["ts"]);
      EXPECT_EQ(previous["cat"] == "command", phase == "f");
    }
    previous = event;
  }
  EXPECT_EQ(names["process_name"], (std::map<int, std::string>{{0, "trace.skein from " + origin}}));
  EXPECT_EQ(names["thread_name"].size(), 2U);
  EXPECT_EQ(announced.size(), 21U);
  ASSERT_EQ(served.size(), 21U);
  for (const auto& [way, event] : served) {
    EXPECT_GE(event["ts"], announced.at(way)["ts"]) << way;
    EXPECT_EQ(names["thread_name"][event["tid"]], "worker");
    EXPECT_EQ(names["thread_name"][announced.at(way)["tid"]], "main");
  }
}

TEST_F(SkeinExport, PerfettoIsToldAColourForEachOutcome) {
  ASSERT_EQ(run({TRACE_PROGRAM, "many", path, "64"}).status, 0);
  std::map<std::string, std::string> colours;
  const json trace = json::parse(exportTo("perfetto", "-").out);
  for (const json& event : trace["traceEvents"]) {
    if (event.contains("cname")) colours[event["args"]["outcome"]] = event["cname"];
  }
  EXPECT_EQ(colours, (std::map<std::string, std::string>{{"ok", "good"},
                                                         {"refused", "bad"},
                                                         {"failed", "terrible"},
                                                         {"undecodable", "terrible"}}));
}

// Each from one on.
TEST_F(SkeinExport, TheCommandsOfTwoRunsInOneFileHaveWaysOfTheirOwn) {
  ringIsOn();
  const Lumo::String type("createModule");
  const Lumo::String queue("q");
  for (int agent = 0; agent < 2; ++agent) {
    for (unsigned i = 1; i <= 3; ++i) Twine::trace<Sample::announced>(i, type, queue, i);
    for (unsigned i = 1; i <= 3; ++i) {
      Twine::trace<Sample::ended>(i, type, queue, Lumo::String("ok"), 3 - i);
    }
  }
  skein.reset();
  std::map<int, std::vector<std::string>> ways;
  const json trace = json::parse(exportTo("perfetto", "-").out);
  for (const json& event : trace["traceEvents"]) {
    if (event.contains("id")) ways[event["id"]].push_back(event["ph"]);
  }
  EXPECT_EQ(ways.size(), 6U);
  for (const auto& [way, phases] : ways) {
    EXPECT_EQ(phases, (std::vector<std::string>{"s", "f"})) << way;
  }
}

namespace {

// A rectangle of the picture.
struct Rect {
  std::string kind;
  double x, y, w, h;
  std::string colour;
  std::string title;
};

std::vector<Rect> rectsIn(const std::string& svg) {
  static const std::regex form(
      "<rect class=\"(\\w+)\" x=\"([^\"]+)\" y=\"([^\"]+)\" width=\"([^\"]+)\" height=\"([^\"]+)\" "
      "fill=\"([^\"]+)\"><title>([^<]*)</title></rect>");
  std::vector<Rect> rects;
  for (std::sregex_iterator at(svg.begin(), svg.end(), form), end; at != end; ++at) {
    const std::smatch& m = *at;
    rects.push_back(
        {m[1], std::stod(m[2]), std::stod(m[3]), std::stod(m[4]), std::stod(m[5]), m[6], m[7]});
  }
  return rects;
}

// How much of its width nothing that is drawn later lies on, at any height.
double widthShown(std::vector<Rect>::const_iterator rect, std::vector<Rect>::const_iterator end) {
  constexpr double step = 0.05;
  double shown = 0;
  for (double x = rect->x + step / 2; x < rect->x + rect->w; x += step) {
    const auto covers = [&](const Rect& later) {
      return later.x < x && x < later.x + later.w && later.y + 0.01 < rect->y + rect->h &&
             rect->y + 0.01 < later.y + later.h;  // beyond the rounding of the numbers
    };
    if (std::none_of(rect + 1, end, covers)) shown += step;
  }
  return shown;
}

}  // namespace

class SkeinPicture : public SkeinExport, public testing::WithParamInterface<int> {};

TEST_P(SkeinPicture, ShowsWhatDidNotEndWellAtAnyLength) {
  const int count = GetParam();
  ASSERT_EQ(run({TRACE_PROGRAM, "many", path, std::to_string(count)}).status, 0);
  const Outcome outcome = exportTo("svg", "-");
  ASSERT_EQ(outcome.status, 0) << outcome.error;
  const std::string& svg = outcome.out;
  EXPECT_LT(svg.size(), 200000U);
  EXPECT_EQ(svg.find("stroke=\"white\""), std::string::npos);
  const std::vector<Rect> rects = rectsIn(svg);
  const auto titled = [&](const std::string& words) {
    return std::find_if(rects.begin(), rects.end(), [&](const Rect& rect) {
      return rect.title.find(words) != std::string::npos;
    });
  };
  // Enough of each is to be seen, whatever is drawn later.
  for (const char* what : {", refused", ", failed", ", undecodable", ", dropped"}) {
    ASSERT_NE(titled(what), rects.end()) << what;
    for (auto rect = rects.begin(); rect != rects.end(); ++rect) {
      if (rect->title.find(what) == std::string::npos) continue;
      EXPECT_GE(widthShown(rect, rects.end()), 2) << rect->title;
      EXPECT_GE(rect->h, 4) << rect->title;
    }
  }
  EXPECT_NE(titled(", refused")->colour, titled(", failed")->colour);
  // Marks stay in their lane.
  double laneTop = 1000;
  for (const Rect& rect : rects) {
    if (rect.kind == "column" || rect.kind == "bar") laneTop = std::min(laneTop, rect.y);
  }
  for (const Rect& rect : rects) {
    if (rect.kind == "mark") {
      EXPECT_GE(rect.y, laneTop - 4) << rect.title;
    }
  }
  // What was never sent takes no time of the lane.
  const Rect lane = *titled(", refused");
  EXPECT_GT(titled(", dropped")->y, lane.y + lane.h - 3);
  EXPECT_EQ(std::count_if(rects.begin(), rects.end(),
                          [](const Rect& rect) { return rect.kind == "fold"; }),
            1);
  // The lane is not empty where commands were served back to back.
  double covered = 0;
  for (const Rect& rect : rects) {
    if (rect.kind == "column" || rect.kind == "bar") covered += rect.w;
  }
  EXPECT_GT(covered, 500);
  EXPECT_NE(svg.find("Commands of trace.skein"), std::string::npos);
  EXPECT_NE(svg.find(std::to_string(count - 14) + " ok<"), std::string::npos);
  EXPECT_NE(svg.find("5 dropped, never sent<"), std::string::npos);
  EXPECT_NE(svg.find(">a queue whose\xe2\x80\xa6<title>a queue whose name is long<"),
            std::string::npos);
  EXPECT_NE(svg.find(" UTC, "), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Lengths, SkeinPicture, testing::Values(64, 20000, 1000000),
                         testing::PrintToStringParamName());

namespace {

// Gives the records of a file, in the order in which a thread wrote them, other times:
// milliseconds since the file was made. They fit into its first block.
void timesAre(const std::string& path, const std::vector<double>& times) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  Skein::FileHeader header;
  file.read(reinterpret_cast<char*>(&header), sizeof header);
  std::size_t at = header.blocksOffset + sizeof(Skein::BlockHeader);
  for (const double time : times) {
    Skein::RecordHeader record;
    file.seekg(static_cast<std::streamoff>(at));
    file.read(reinterpret_cast<char*>(&record), sizeof record);
    record.monotonicNs = header.monotonicNs + static_cast<U64>(std::llround(time * 1e6));
    file.seekp(static_cast<std::streamoff>(at));
    file.write(reinterpret_cast<const char*>(&record), sizeof record);
    at += Skein::committedLength(record.commit);
  }
}

}  // namespace

// Damage can put two centuries between two commands, and leave less than a microsecond to be shown.
TEST_F(SkeinExport, APictureAsWideAsTheClockHasAnAxis) {
  ringIsOn({.multiThreaded = false});
  const Lumo::String type("createModule");
  const Lumo::String queue("q");
  for (unsigned i = 1; i <= 2; ++i) {
    Twine::trace<Sample::announced>(i, type, queue, 1U);
    Twine::trace<Sample::ended>(i, type, queue, Lumo::String("ok"), 0U);
  }
  skein.reset();
  const double latest = (std::ldexp(1, 63) - static_cast<double>(headerOf(path).wallNs)) / 1e6 - 1;
  timesAre(path, {0, 0.0001, latest, latest});
  // A picture that does not end is ended by the limit.
  const Outcome outcome =
      run({"/bin/sh", "-c", "ulimit -f 1000 && exec \"$0\" export --format svg \"$1\" \"$2\"",
           SKEIN_PROGRAM, path, folder.file("picture.svg")});
  ASSERT_EQ(outcome.status, 0) << outcome.error;
  std::ifstream in(folder.file("picture.svg"));
  const std::string svg{std::istreambuf_iterator<char>(in), {}};
  EXPECT_LT(svg.size(), 20000U);
  const std::vector<Rect> rects = rectsIn(svg);
  EXPECT_EQ(std::count_if(rects.begin(), rects.end(),
                          [](const Rect& rect) { return rect.kind == "fold"; }),
            1);
}

// A nanosecond is a small part of today's time on the clock.
TEST_F(SkeinExport, BarsAreAsLongAsTheirCommandsTookToTheNanosecond) {
  ringIsOn({.multiThreaded = false});
  const Lumo::String type("createModule");
  const Lumo::String queue("q");
  for (unsigned i = 1; i <= 4; ++i) Twine::trace<Sample::announced>(i, type, queue, i);
  for (unsigned i = 1; i <= 4; ++i) {
    Twine::trace<Sample::ended>(i, type, queue, Lumo::String("ok"), 4 - i);
  }
  skein.reset();
  timesAre(path, {0, 0, 0, 0, 0.0001, 0.0003, 0.0004, 0.00082});
  std::vector<double> widths;
  for (const Rect& rect : rectsIn(exportTo("svg", "-").out)) {
    if (rect.kind == "bar") widths.push_back(rect.w);
  }
  // 820 ns on 820 units, and half a unit of each bar is a blank.
  EXPECT_EQ(widths, (std::vector<double>{99.5, 199.5, 99.5, 419.5}));
}

// As wide as a mark, it could be hidden by the mark of the command after it.
TEST_F(SkeinExport, ACommandThatFailedIsSeenBesideOneThatWasRefused) {
  ringIsOn({.multiThreaded = false});
  const Lumo::String type("createModule");
  const Lumo::String queue("q");
  for (unsigned i = 1; i <= 4; ++i) Twine::trace<Sample::announced>(i, type, queue, i);
  const char* const outcomes[] = {"ok", "failed", "refused", "ok"};
  for (unsigned i = 0; i < 4; ++i) {
    Twine::trace<Sample::ended>(i + 1, type, queue, Lumo::String(outcomes[i]), 3 - i);
  }
  skein.reset();
  // A millisecond is as long as a unit of the picture.
  timesAre(path, {0, 0, 0, 0, 299.9, 302.9, 302.95, 820});
  const std::vector<Rect> rects = rectsIn(exportTo("svg", "-").out);
  for (const char* what : {"2 createModule, failed", "3 createModule, refused"}) {
    const auto found = std::find_if(rects.begin(), rects.end(), [&](const Rect& rect) {
      return rect.title.find(what) != std::string::npos;
    });
    ASSERT_NE(found, rects.end()) << what;
    EXPECT_GE(widthShown(found, rects.end()), 2) << what;
  }
}

// It is what a daemon that hangs hangs in, however short before the end of the recording.
TEST_F(SkeinExport, ACommandThatIsInFlightForAMomentIsSeen) {
  ringIsOn({.multiThreaded = false});
  const Lumo::String type("createModule");
  const Lumo::String queue("q");
  Twine::trace<Sample::announced>(1U, type, queue, 1U);
  Twine::trace<Sample::announced>(2U, type, queue, 2U);
  Twine::trace<Sample::ended>(1U, type, queue, Lumo::String("ok"), 1U);
  Twine::trace<Sample::plain>();
  skein.reset();
  timesAre(path, {0, 0, 819.5, 820});
  const std::vector<Rect> rects = rectsIn(exportTo("svg", "-").out);
  const auto titled = [&](const std::string& words) {
    return std::find_if(rects.begin(), rects.end(), [&](const Rect& rect) {
      return rect.title.find(words) != std::string::npos;
    });
  };
  const auto found = titled("2 createModule, in flight");
  ASSERT_NE(found, rects.end());
  ASSERT_NE(titled("1 createModule, ok"), rects.end());
  EXPECT_NE(found->colour, titled("1 createModule, ok")->colour);
  EXPECT_GE(widthShown(found, rects.end()), 2);
}

TEST_F(SkeinExport, AFileWithoutRecordsIsAValidEmptyTrace) {
  ringIsOn();
  const Outcome outcome = exportTo("perfetto", "-");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(json::parse(outcome.out)["traceEvents"].empty());
}

TEST_F(SkeinExport, DamageIsNamedBeforeWhatIsMissingBecauseOfIt) {
  makeCommands();
  Skein::FileHeader header;
  std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof header);
  // No record is left, then some.
  for (const U64 size : {U64{header.blocksOffset}, U64{header.blocksOffset} + header.blockSize}) {
    std::filesystem::resize_file(path, size);
    for (const char* format : {"perfetto", "svg", "ctf"}) {
      const Outcome outcome = exportTo(format, folder.file(std::string(format)));
      EXPECT_EQ(outcome.status, 1) << format;
      EXPECT_EQ(outcome.error.find("skein: " + path + " is cut off: "), 0U) << outcome.error;
    }
    makeCommands();
  }
}

TEST_F(SkeinExport, TargetsThatCannotBeWrittenGiveOneLine) {
  makeCommands();
  for (const char* format : {"perfetto", "ctf"}) {
    const Outcome outcome = exportTo(format, "/proc/nothing/here");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(std::count(outcome.error.begin(), outcome.error.end(), '\n'), 1) << outcome.error;
  }
}

TEST_F(SkeinExport, AFolderDoesNotFitStandardOutput) {
  makeCommands();
  const Outcome outcome = exportTo("ctf", "-");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.error, "skein: the ctf format is a folder of files: name a new one\n");
  EXPECT_FALSE(std::filesystem::exists("-"));
}

TEST_F(SkeinExport, TheRecordingItselfIsNoTarget) {
  makeCommands();
  std::filesystem::create_symlink(path, folder.file("link"));
  std::filesystem::create_hard_link(path, folder.file("same"));
  for (const char* format : {"perfetto", "svg", "ctf"}) {
    for (const std::string& target : {path, folder.file("link"), folder.file("same")}) {
      const Outcome outcome = exportTo(format, target);
      EXPECT_EQ(outcome.status, 1) << format;
      EXPECT_EQ(outcome.error,
                "skein: " + target + " is the recording itself: name another target\n");
      EXPECT_EQ(recordsIn(path).size(), records);
    }
  }
}

// Another process may have the old file mapped.
TEST_F(SkeinExport, AnOlderTargetIsReplacedAndNotCutOff) {
  makeCommands();
  const std::string live = folder.file("live");
  std::filesystem::copy_file(path, live);
  std::filesystem::permissions(
      live, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  std::filesystem::create_symlink("live", folder.file("link"));
  const int open = ::open(live.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(exportTo("perfetto", folder.file("link")).status, 0);
  struct stat status;
  ASSERT_EQ(::fstat(open, &status), 0);
  EXPECT_EQ(static_cast<std::uintmax_t>(status.st_size), std::filesystem::file_size(path));
  ::close(open);
  EXPECT_TRUE(std::filesystem::is_symlink(folder.file("link")));
  EXPECT_TRUE(json::parse(std::ifstream(live)).contains("traceEvents"));
  EXPECT_EQ(std::filesystem::status(live).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(SkeinExport, ATargetIsItsOwnersWhateverTheUmask) {
  makeCommands();
  const mode_t usual = ::umask(0);
  for (const char* format : {"perfetto", "svg", "ctf"}) {
    EXPECT_EQ(exportTo(format, folder.file(format)).status, 0) << format;
  }
  ::umask(usual);
  std::vector<std::filesystem::path> made{folder.file("perfetto"), folder.file("svg"),
                                          folder.file("ctf")};
  for (const auto& entry : std::filesystem::directory_iterator(made.back())) {
    made.push_back(entry.path());
  }
  EXPECT_GT(made.size(), 4U);
  for (const std::filesystem::path& each : made) {
    struct stat status {};
    ASSERT_EQ(::stat(each.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 077, 0U) << each;
  }
}

TEST_F(SkeinExport, WhatAKilledOneLeftIsNeitherWrittenNorFollowed) {
  makeCommands();
  const std::string target = folder.file("target");
  std::ofstream(folder.file("precious")) << "of importance";
  const Outcome outcome =
      run({"/bin/sh", "-c",
           "ln -s precious \"$2.new-$$\"; exec \"$0\" export --format perfetto \"$1\" \"$2\"",
           SKEIN_PROGRAM, path, target});
  EXPECT_EQ(outcome.status, 0) << outcome.error;
  EXPECT_FALSE(std::filesystem::is_symlink(target));
  EXPECT_TRUE(json::parse(std::ifstream(target)).contains("traceEvents"));
  std::string precious;
  std::getline(std::ifstream(folder.file("precious")), precious);
  EXPECT_EQ(precious, "of importance");
}

TEST_F(SkeinExport, WhatSomebodyElseHasPutInTheWayIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives a file to somebody else";
  constexpr uid_t somebody = 65534;
  makeCommands();
  std::ofstream(folder.file("precious")) << "of importance";
  const std::string common = folder.file("common");
  std::filesystem::create_directory(common);
  for (const mode_t mode : {01777, 0777}) {
    ASSERT_EQ(::chmod(common.c_str(), mode), 0);
    const std::string link = common + "/link", file = common + "/file", ctf = common + "/ctf";
    std::filesystem::remove(link);
    std::filesystem::create_symlink(folder.file("precious"), link);
    std::ofstream(file) << "of somebody";
    std::filesystem::create_directory(ctf);
    for (const std::string& each : {link, file, ctf}) {
      ASSERT_EQ(::lchown(each.c_str(), somebody, somebody), 0);
      const Outcome outcome = exportTo(each == ctf ? "ctf" : "perfetto", each);
      EXPECT_EQ(outcome.status, 1) << each;
      EXPECT_NE(outcome.error.find(" that somebody else has put where everybody may write; "),
                std::string::npos)
          << outcome.error;
    }
    EXPECT_EQ(std::filesystem::file_size(folder.file("precious")), 13U);
    EXPECT_EQ(std::filesystem::file_size(file), 11U);
    EXPECT_TRUE(std::filesystem::is_empty(ctf));
  }
}

TEST_F(SkeinExport, ATargetThatIsNoFileIsWrittenAsItIs) {
  makeCommands();
  for (const char* format : {"perfetto", "svg"}) {
    const Outcome outcome = exportTo(format, "/dev/full");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.error, "skein: cannot write /dev/full: No space left on device\n");
    EXPECT_EQ(exportTo(format, "/dev/null").status, 0);
    EXPECT_EQ(exportTo(format, folder.file("")).status, 1) << "a folder";
  }
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
  // The file that is open, not one that takes its name.
  EXPECT_TRUE(json::parse(exportTo("perfetto", "/dev/stdout").out).contains("traceEvents"));
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(folder.file(""))) {
    left.push_back(entry.path().filename());
  }
  EXPECT_EQ(left, std::vector<std::string>{"trace.skein"});
}

TEST_F(SkeinExport, Babeltrace2ReadsTheWholeCtfTrace) {
  makeCommands();
  const std::string target = folder.file("ctf");
  const Outcome outcome = exportTo("ctf", target);
  if (outcome.error.find("built without") != std::string::npos) GTEST_SKIP() << outcome.error;
  ASSERT_EQ(outcome.status, 0) << outcome.error;
  if (::access("/usr/bin/babeltrace2", X_OK) != 0) {
    GTEST_SKIP() << "no babeltrace2 to read the trace with: install the package babeltrace2";
  }
  const Outcome read = run({"/usr/bin/babeltrace2", "--clock-seconds", target});
  EXPECT_EQ(read.status, 0) << read.error;
  std::istringstream in(read.out);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  const auto expected = recordsIn(path);
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_NE(lines[i].find("text = \"" + expected[i].text + "\""), std::string::npos) << lines[i];
    EXPECT_NE(lines[i].find("tid = " + std::to_string(expected[i].thread)), std::string::npos);
  }
  EXPECT_NE(lines[0].find("NorvAgent:announce:1"), std::string::npos);
  EXPECT_NE(lines[0].find("arg1 = \"createModule\""), std::string::npos);
  const Outcome again = exportTo("ctf", target);
  EXPECT_EQ(again.status, 1) << "a folder with something in it is left alone";
}
