#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
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
  ASSERT_NE(std::string("XiCM").find(phase), std::string::npos) << phase;
  if (phase == "M") {
    EXPECT_TRUE(event.at("args").at("name").is_string());
    return;
  }
  EXPECT_GE(event.at("ts").get<double>(), 0);
  if (phase == "X") {
    EXPECT_GE(event.at("dur").get<double>(), 0);
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
    if (phase == "X") slices.push_back(event);
    if (phase == "M") named.insert(event["tid"].get<int>());
    if (phase == "X" || phase == "i") tracks.insert(event["tid"].get<int>());
    if (phase == "C" && event["args"]["commands"] == 20 && announced < 0) announced = event["ts"];
  }
  ASSERT_EQ(slices.size(), 21U);
  EXPECT_EQ(counts["C"], 41);
  EXPECT_EQ(counts["i"], 21);
  EXPECT_EQ(named.size(), 2U);
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
