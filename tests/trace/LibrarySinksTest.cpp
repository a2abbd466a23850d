// The library's own trace points in one run with both sinks on: which of them leave ring records,
// and whether the two sinks say the same.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Agent.h>
#include <support/FakeDaemon.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>

#include <Lumo/Trace.h>
#include <Lumo/TraceRecorder.h>
#include <Norv/ClientTrace.h>
#include <Norv/GrpcClient.h>
#include <Norv/ManagerTrace.h>
#include <Norv/TypesTrace.h>
#include <Skein/Reader.h>
#include <Skein/TraceHandle.h>

namespace {

using namespace Norv;
using testing::IsEmpty;

// One line or one record, as far as the two must agree.
struct Said {
  std::string facility;
  unsigned level;
  std::string file;
  int line;
  std::string function;
  std::string text;
  bool operator==(const Said&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Said& said) {
  return out << said.facility << '/' << said.level << ' ' << said.file << ':' << said.line << ' '
             << said.function << ": " << said.text;
}
using Place = std::pair<std::string, int>;

const std::set<Place> bothSinks = [] {
  std::set<Place> places{{"GrpcClient.cpp", 102}, {"GrpcClient.cpp", 130}};
  for (const int line : {16, 39, 58, 65, 75, 82, 85, 92, 115, 125, 140}) {
    places.insert({"NorvConnectionsMgr.lumo", line});
  }
  return places;
}();
const std::set<Place> textOnly{{"GrpcTypes.lumo", 12},  {"GrpcTypes.lumo", 18},
                               {"GrpcClient.cpp", 20},  {"GrpcClient.cpp", 30},
                               {"GrpcClient.cpp", 77},  {"GrpcClient.cpp", 81},
                               {"GrpcClient.cpp", 137}, {"GrpcClient.cpp", 326}};

struct TwoSinks : testing::Test {
  TwoSinks() {
    Lumo::traceSettingIs("*/*");
    Skein::defaultSkeinHandleIs(&skein);
  }
  ~TwoSinks() override {
    // The workers of the managers live on and may trace.
    Skein::defaultSkeinHandleIs(nullptr);
    Lumo::traceSettingIs("");
    std::filesystem::remove(path);
  }

  // A life of a manager, in which every point is passed but that of a failure to send, which the
  // daemon's answers cannot cause.
  void passEveryPoint() {
    support::FakeDaemon daemon;
    support::Agent agent;
    agent.queue("main");
    agent.connect(daemon.port());
    agent.queue("short-lived");
    agent.config->cmdConfigGroupDel("short-lived");
    agent.manager->doFlushPendingQueue();
    agent.queue()->cmdBatchEnq(
        Lumo::allocate<GrpcCmd>(support::newRequest(getVersion).release(), getVersion));
    agent.announce();
    ASSERT_TRUE(agent.eventually([&] { return hasText("processResponse", 12); }));
    daemon.handlerIs([](auto, const auto&, auto*) {
      return support::FakeDaemon::Answer{14, "un\navailable %s", ""};
    });
    agent.enqueue();
    agent.announce();
    ASSERT_TRUE(agent.eventually([&] { return hasText("doProcessGrpcCmd", 81); }));
    ASSERT_TRUE(agent.eventually([&] { return agent.status->errorOccured(); }));
    agent.dropManager();
    Lumo::Lock lock;
    Lumo::Condition condition;
    GrpcClient(daemon.inProcessChannel(), agent.pending, agent.status, &lock, &condition);
  }
  bool hasText(const std::string& function, int line) const {
    for (const auto& said : recorder.lines()) {
      if (said.function == function && said.line == line) return true;
    }
    return false;
  }

  std::map<int, std::vector<Said>> linesByThread() const {
    std::map<int, std::vector<Said>> lines;
    for (const auto& line : recorder.lines()) {
      lines[line.thread].push_back(
          {line.facility.stdString(), line.level, line.file, line.line, line.function, line.text});
    }
    return lines;
  }
  std::map<int, std::vector<Said>> recordsByThread() const {
    std::map<int, std::vector<Said>> records;
    Skein::Reader reader(path);
    reader.read([&](const Skein::Record& record) {
      std::string text;
      record.appendText(text);
      const Skein::Site& site = *record.site;
      records[record.thread].push_back(
          {site.facility, site.level, site.file, site.line, site.function, text});
    });
    EXPECT_EQ(reader.problem(), "");
    return records;
  }

  const std::string path =
      (std::filesystem::temp_directory_path() / ("two-sinks-" + std::to_string(::getpid())))
          .string();
  Skein::TraceHandle skein{path};
  Lumo::TraceRecorder recorder;
};

TEST_F(TwoSinks, SayTheSameOfEveryPointThatHasBoth) {
  passEveryPoint();
  // The worker waits now, or traces once more: both sinks stop between two points of it.
  Skein::defaultSkeinHandleIs(nullptr);
  auto records = recordsByThread();
  std::set<Place> recorded;
  std::set<Place> traced;
  for (auto& [thread, lines] : linesByThread()) {
    for (const Said& line : lines) traced.insert({line.file, line.line});
    std::erase_if(lines, [](const Said& line) {
      return textOnly.contains({line.file, line.line});
    });
    EXPECT_EQ(records[thread], lines) << "thread " << thread;
    for (const Said& record : records[thread]) recorded.insert({record.file, record.line});
    records.erase(thread);
  }
  EXPECT_THAT(records, IsEmpty());
  std::set<Place> reachable = bothSinks;
  reachable.erase({"GrpcClient.cpp", 130});
  EXPECT_EQ(recorded, reachable);
  std::set<Place> all = reachable;
  all.insert(textOnly.begin(), textOnly.end());
  EXPECT_EQ(traced, all);
}

TEST_F(TwoSinks, AFailureToSendWouldSayTheSameToo) {
  Twine::trace<ClientTrace::failedSend>(14, std::string("gone"));
  const Said said{
      "GrpcClient",        0,
      "GrpcClient.cpp",    130,
      "sendRequestCommon", "Failure to send request: error_code: 14 error_message: gone"};
  EXPECT_EQ(linesByThread(), (std::map<int, std::vector<Said>>{{::gettid(), {said}}}));
  EXPECT_EQ(recordsByThread(), linesByThread());
}

TEST_F(TwoSinks, EachPointIsDescribedOnceWithItsTextAndTheTypesOfItsArguments) {
  passEveryPoint();
  Twine::trace<ClientTrace::failedSend>(14, std::string("gone"));
  std::map<Place, std::string> codes;
  Skein::Reader reader(path);
  for (const auto& site : reader.sites()) {
    if (!site) continue;
    const Place place{site->file, site->line};
    EXPECT_EQ(codes.count(place), 0u) << site->text;
    codes[place] = site->codes;
    EXPECT_TRUE(site->places) << site->text;
    if (place == Place("NorvConnectionsMgr.lumo", 125)) {
      EXPECT_EQ(site->text, "Connecting to Bessd (%s)");
    }
  }
  std::map<Place, std::string> expected;
  for (const Place& place : bothSinks) expected[place] = "";
  for (const int line : {75, 82, 85, 125}) expected[{"NorvConnectionsMgr.lumo", line}] = "s";
  expected[{"NorvConnectionsMgr.lumo", 140}] = "p";
  expected[{"GrpcClient.cpp", 102}] = expected[{"GrpcClient.cpp", 130}] = "is";
  EXPECT_EQ(codes, expected);
}

// Gives the manager's map back.
struct MappedLevels {
  MappedLevels() { mapped = ManagerTrace::_mapTwineToSkein(0, 9, 9, 9, 9, 9, 9, 9, 9, 9); }
  ~MappedLevels() { ManagerTrace::_mapTwineToSkein(0, 1, 2, 3, 4, 5, 6, 7, 8, 9); }
  bool mapped;
};

TEST_F(TwoSinks, AMapMovesTheRecordsOfItsModuleAndLeavesTheTextsLevel) {
  const support::Environment simulation("SIMULATION_NORV", "1");
  const MappedLevels levels;
  EXPECT_TRUE(levels.mapped);
  Lumo::traceSettingIs("NorvConnectionsMgr/5");
  support::Agent agent;
  agent.connect(1);
  Twine::trace<ClientTrace::failedSend>(14, std::string("gone"));
  Skein::Reader reader(path);
  std::map<std::string, std::set<unsigned>> levelsOf;
  reader.read(
      [&](const Skein::Record& record) { levelsOf[record.site->facility].insert(record.level); });
  EXPECT_EQ(levelsOf, (std::map<std::string, std::set<unsigned>>{{"NorvConnectionsMgr", {9}},
                                                                 {"GrpcClient", {0}}}));
  ASSERT_FALSE(recorder.lines().empty());
  for (const auto& line : recorder.lines()) EXPECT_EQ(line.level, 5u);
  recorder.clear();
  Lumo::traceSettingIs("NorvConnectionsMgr/9");
  agent.manager->doFlushPendingQueue();
  EXPECT_THAT(recorder.lines(), IsEmpty()) << "the text half still asks for level 5";
}

}  // namespace
