#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "Process.h"
#include "TraceFixture.h"

namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

Outcome skeinWith(std::vector<std::string> words) {
  words.insert(words.begin(), SKEIN_PROGRAM);
  return run(words);
}

// A running `skein dump --follow`, whose lines are waited for.
class Follower {
 public:
  explicit Follower(const std::string& path, const std::vector<std::string>& options = {}) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) std::perror("pipe2");
    std::vector<std::string> words{SKEIN_PROGRAM, "dump", "--follow", path};
    words.insert(words.end(), options.begin(), options.end());
    child_ = start(words, nullptr, ends[1], -1);
    ::close(ends[1]);
    in_ = ends[0];
  }
  ~Follower() {
    if (child_ > 0) {
      ::kill(child_, SIGKILL);
      ended(child_);
    }
    ::close(in_);
  }
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;

  std::string nextText() {
    const std::string line = nextLine();
    return line.substr(line.find(": ") + 2);
  }
  // Waits for it; fails the test at the end of the output.
  std::string nextLine() {
    char letter;
    std::string line;
    while (::read(in_, &letter, 1) == 1) {
      if (letter == '\n') return line;
      line.push_back(letter);
    }
    ADD_FAILURE() << "the follower ended";
    return {};
  }
  int interrupt() {
    ::kill(child_, SIGINT);
    const int status = ended(child_);
    child_ = -1;
    return status;
  }

 private:
  pid_t child_;
  int in_;
};

}  // namespace

using SkeinTool = TraceTest;

TEST_F(SkeinTool, DumpsTheSameLinesAsTheTextTrace) {
  textIsOn();
  ringIsOn();
  Twine::trace<Sample::placed>(14, std::string("un\navailable"));
  Twine::trace<Sample::appended>(Lumo::Name("q1"));
  Twine::trace<Sample::four>(true, -1, Skein::QNull(), "x");
  const Outcome outcome = skeinWith({"dump", path});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.error, "");
  const auto lines = linesOf(outcome.out);
  const auto expected = recorder.lines();
  ASSERT_EQ(lines.size(), expected.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const auto& from = expected[i];
    std::string line;
    Lumo::appendTraceLine(line, {"Sample", from.level, from.file.c_str(), from.line,
                                 from.function.c_str(), from.text, from.timeNs, from.thread});
    EXPECT_EQ(lines[i].substr(26) + "\n", line.substr(26));
    EXPECT_EQ(lines[i].substr(0, 11), line.substr(0, 11));
  }
}

TEST_F(SkeinTool, FiltersByLevelFacilityFunctionAndTime) {
  ringIsOn();
  Twine::trace<Sample::placed>(1, std::string("failed"));
  Twine::trace<Sample::plain>();
  Twine::trace<Sample::other>(7);
  Twine::trace<Sample::four>(1, 2, 3, 4);
  const auto count = [&](const char* option, const std::string& value) {
    const Outcome outcome = skeinWith({"dump", path, option, value});
    EXPECT_EQ(outcome.status, 0) << outcome.error;
    return linesOf(outcome.out).size();
  };
  EXPECT_EQ(count("--level", "0"), 1U);
  EXPECT_EQ(count("--level", "0-5"), 3U);
  EXPECT_EQ(count("--level", "*"), 4U);
  EXPECT_EQ(count("--facility", "Other"), 1U);
  EXPECT_EQ(count("--facility", "Other,Sample"), 4U);
  EXPECT_EQ(count("--function", "handleBatch"), 1U);
  EXPECT_EQ(count("--since", "2h"), 4U);
  EXPECT_EQ(count("--since", "1999-12-31T23:59:59.5Z"), 4U);
  EXPECT_EQ(count("--since", "2400-01-01T00:00:00"), 0U);
  EXPECT_EQ(count("--since", "2024-02-29T00:00:00"), 4U);
  EXPECT_EQ(count("--since", "9999-12-31T23:59:59"), 0U);
}

TEST_F(SkeinTool, NamesThatTheFileDoesNotHaveAreReported) {
  ringIsOn();
  Twine::trace<Sample::plain>();
  Twine::trace<Sample::other>(7);
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"dump", path}, {"stat", path}, {"export", "--format", "perfetto", path, "-"}}) {
    const auto with = [&](const char* option, const char* value) {
      std::vector<std::string> all = words;
      all.insert(all.end(), {option, value});
      const Outcome outcome = skeinWith(all);
      EXPECT_EQ(outcome.status, 0);
      return outcome.error;
    };
    EXPECT_EQ(with("--facility", "Sampel,Other"),
              "skein: the file has no facility Sampel, but Other, Sample\n");
    EXPECT_EQ(with("--function", "connect"),
              "skein: the file has no function connect, but handleBatch, other\n");
    EXPECT_EQ(with("--facility", "Sample"), "");
  }
}

TEST_F(SkeinTool, AMomentInTheMiddleShowsTheRecordsFromThenOn) {
  ringIsOn();
  for (int i = 0; i < 5; ++i) Twine::trace<Sample::numbered>(i);
  std::vector<U64> times;
  Skein::Reader reader(path);
  reader.read([&](const Skein::Record& record) { times.push_back(record.timeNs); });
  ASSERT_EQ(times.size(), 5U);
  ASSERT_LT(times[2], times[3]);
  const auto second = static_cast<std::time_t>(times[3] / 1000000000);
  std::tm parts;
  char text[40];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.", gmtime_r(&second, &parts));
  char fraction[12];
  std::snprintf(fraction, sizeof fraction, "%09llu", times[3] % 1000000000);
  const auto lines =
      linesOf(skeinWith({"dump", path, "--since", std::string(text) + fraction}).out);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_NE(lines[0].find("n=3"), std::string::npos);
}

TEST_F(SkeinTool, WritesOneJsonObjectPerRecord) {
  ringIsOn();
  Twine::trace<Sample::four>(true, -1, Skein::QNull(), std::string("\xff\"quoted\""));
  const Outcome outcome = skeinWith({"dump", "--json", path});
  const auto lines = linesOf(outcome.out);
  ASSERT_EQ(lines.size(), 1U);
  const auto record = nlohmann::json::parse(lines[0]);
  EXPECT_EQ(record["facility"], "Sample");
  EXPECT_EQ(record["level"], 9);
  EXPECT_EQ(record["skeinLevel"], 9);
  EXPECT_EQ(record["file"], "Sample.lumo");
  EXPECT_EQ(record["line"], 9);
  EXPECT_EQ(record["function"], "four");
  EXPECT_EQ(record["thread"], ::gettid());
  EXPECT_EQ(record["args"][0], true);
  EXPECT_EQ(record["args"][1], -1);
  EXPECT_TRUE(record["args"][2].is_null());
  EXPECT_EQ(record["args"][3], "\xef\xbf\xbd\"quoted\"");
}

TEST_F(SkeinTool, CountsRecordsLossesAndSites) {
  ringIsOn({.size = 16 * 1024});
  for (int i = 0; i < 1000; ++i) Twine::trace<Sample::numbered>(i);
  Twine::trace<Sample::plain>();
  const auto counts = nlohmann::json::parse(skeinWith({"stat", "--json", path}).out);
  EXPECT_EQ(counts["records"].get<int>() + counts["lost"].get<int>(), 1001);
  EXPECT_GT(counts["lost"], 0);
  EXPECT_EQ(counts["fileSize"], 16384);
  EXPECT_EQ(counts["sites"].size(), 2U);
  EXPECT_EQ(counts["sites"][0]["text"], "n=%s");
  EXPECT_EQ(counts["sites"][1]["records"], 1);
  const Outcome text = skeinWith({"stat", path});
  EXPECT_EQ(text.status, 0);
  EXPECT_NE(text.out.find("Sample/3 Sample.lumo:7 count: n=%s"), std::string::npos);
}

TEST_F(SkeinTool, FollowsALiveFileAndItsSuccessor) {
  ringIsOn();
  Twine::trace<Sample::numbered>(1);
  Follower follower(path);
  EXPECT_EQ(follower.nextText(), "n=1");
  Twine::trace<Sample::numbered>(2);
  EXPECT_EQ(follower.nextText(), "n=2");
  auto old = std::move(skein);
  ringIsOn();
  Twine::trace<Sample::numbered>(3);
  EXPECT_EQ(follower.nextText(), "n=3");
  EXPECT_EQ(follower.interrupt(), 0);
}

TEST_F(SkeinTool, FollowsAsJson) {
  ringIsOn();
  Follower follower(path, {"--json"});
  for (int i = 0; i < 3; ++i) {
    Twine::trace<Sample::numbered>(i);
    const auto record = nlohmann::json::parse(follower.nextLine());
    EXPECT_EQ(record["text"], "n=" + std::to_string(i));
    EXPECT_EQ(record["args"], nlohmann::json::array({i}));
  }
  EXPECT_EQ(follower.interrupt(), 0);
}

TEST_F(SkeinTool, FollowsWhatPassesTheFilters) {
  ringIsOn();
  Twine::trace<Sample::numbered>(-1);
  Follower follower(path, {"--level", "5", "--facility", "Sample", "--function", "connect"});
  for (int i = 0; i < 3; ++i) {
    Twine::trace<Sample::numbered>(i);
    Twine::trace<Sample::other>(i);
    Twine::trace<Sample::plain>();
    Twine::trace<Sample::bracketed>(i);
    EXPECT_EQ(follower.nextText(), "To (" + std::to_string(i) + ")");
  }
  EXPECT_EQ(follower.interrupt(), 0);
}

TEST_F(SkeinTool, FollowsAWriterToItsDeathAndThenItsSuccessor) {
  const pid_t writer = ::fork();
  if (writer == 0) {
    Skein::TraceHandle handle(path);
    Skein::defaultSkeinHandleIs(&handle);
    for (int i = 0; i < 1000; ++i) Twine::trace<Sample::numbered>(i);
    for (;;) ::pause();
  }
  while (!std::filesystem::exists(path)) std::this_thread::yield();
  Follower follower(path);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(follower.nextText(), "n=" + std::to_string(i));
  ::kill(writer, SIGKILL);
  EXPECT_EQ(ended(writer), -SIGKILL);
  ringIsOn();
  Twine::trace<Sample::numbered>(1000);
  EXPECT_EQ(follower.nextText(), "n=1000");
  EXPECT_EQ(follower.interrupt(), 0);
}

TEST_F(SkeinTool, ATimeBeforeTheNewestRecordCutsOffWhatIsOlder) {
  ringIsOn({.multiThreaded = false});
  for (int i = 0; i < 5; ++i) Twine::trace<Sample::numbered>(i);
  skein.reset();
  // Makes the last two records an hour younger.
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  Skein::FileHeader header;
  file.read(reinterpret_cast<char*>(&header), sizeof header);
  std::streamoff at = header.blocksOffset + sizeof(Skein::BlockHeader);
  for (int i = 0; i < 5; ++i) {
    Skein::RecordHeader record;
    file.seekg(at);
    file.read(reinterpret_cast<char*>(&record), sizeof record);
    if (i >= 3) record.monotonicNs += 3600ULL * 1000000000;
    file.seekp(at);
    file.write(reinterpret_cast<const char*>(&record), sizeof record);
    at += Skein::committedLength(record.commit);
  }
  file.close();
  for (const auto& [since, first] : std::vector<std::pair<const char*, std::size_t>>{
           {"30m", 3}, {"1800s", 3}, {"1000000ms", 3}, {"61m", 0}, {"2h", 0}}) {
    const auto lines = linesOf(skeinWith({"dump", "--since", since, path}).out);
    ASSERT_EQ(lines.size(), 5 - first) << since;
    EXPECT_NE(lines[0].find("n=" + std::to_string(first)), std::string::npos) << lines[0];
  }
  const auto stat =
      nlohmann::json::parse(skeinWith({"stat", "--json", "--since", "30m", path}).out);
  EXPECT_EQ(stat["records"], 2);
}

TEST_F(SkeinTool, UnreadableFilesGiveOneLineAndStatusOne) {
  ringIsOn({.size = 16 * 1024});
  Twine::trace<Sample::plain>();
  skein.reset();
  std::ifstream in(path, std::ios::binary);
  const std::string whole{std::istreambuf_iterator<char>(in), {}};
  std::string damaged = whole;
  damaged[offsetof(Skein::FileHeader, blockSize)] = 3;
  std::string torn = whole;
  torn[torn.find("Entry")] = 'X';
  torn[offsetof(Skein::FileHeader, blocksWanted)] = 0;
  const std::string contents[] = {"",      "hello", whole.substr(0, 50), whole.substr(0, 10000),
                                  damaged, torn};
  for (const std::string& content : contents) {
    const std::string file = folder.file("bad.skein");
    std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"dump", file}, {"stat", file}, {"export", "--format", "perfetto", file, "-"}}) {
      const Outcome outcome = skeinWith(words);
      EXPECT_EQ(outcome.status, 1) << content.size();
      EXPECT_EQ(linesOf(outcome.error).size(), 1U) << outcome.error;
      EXPECT_NE(outcome.error.find(file), std::string::npos);
    }
  }
  EXPECT_EQ(skeinWith({"dump", folder.file("missing")}).status, 1);
}

TEST_F(SkeinTool, AFullDiskIsReported) {
  ASSERT_EQ(run({TRACE_PROGRAM, "commands", path}).status, 0);
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {SKEIN_PROGRAM, "dump", path},
           {SKEIN_PROGRAM, "dump", "--json", path},
           {SKEIN_PROGRAM, "stat", path},
           {SKEIN_PROGRAM, "stat", "--json", path},
           {SKEIN_PROGRAM, "export", "--format", "perfetto", path, "-"},
           {SKEIN_PROGRAM, "export", "--format", "svg", path, "-"}}) {
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    const int error = temporaryDescriptor();
    EXPECT_EQ(ended(start(words, nullptr, full, error)), 1) << words[1];
    ::close(full);
    EXPECT_EQ(contentsAndClose(error),
              "skein: cannot write to standard output: No space left on device\n");
  }
}

TEST_F(SkeinTool, TellsHowToUseIt) {
  EXPECT_EQ(skeinWith({}).status, 2);
  EXPECT_EQ(skeinWith({"dump"}).status, 2);
  EXPECT_EQ(skeinWith({"dump", path, "--level", "high"}).status, 2);
  EXPECT_EQ(skeinWith({"dump", path, "--since", "yesterday"}).status, 2);
  EXPECT_EQ(skeinWith({"export", "--format", "mp3", path, "x"}).status, 2);
  for (const char* level : {"10", "5-10", "-1", "6-5"}) {
    EXPECT_EQ(skeinWith({"dump", path, "--level=" + std::string(level)}).status, 2) << level;
  }
  for (const char* since : {"2026-02-30T12:00:00", "2025-02-29T12:00:00", "2026-13-01T12:00:00",
                            "2026-01-31T25:00:00", "2026-01-31T12:00:60", "1969-12-31T23:59:59"}) {
    EXPECT_EQ(skeinWith({"dump", path, "--since", since}).status, 2) << since;
  }
  const Outcome version = skeinWith({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.find("skein "), 0U) << version.out;
  const Outcome help = skeinWith({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* word : {"dump", "stat", "export"}) {
    EXPECT_NE(help.out.find(word), std::string::npos);
  }
}
