#include <support/TemporaryFolder.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include <Norv/Agent/AgentTrace.h>
#include <Norv/Agent/FlightRecorder.h>
#include <Norv/ClientTrace.h>
#include <Norv/ManagerTrace.h>
#include <Skein/Reader.h>
#include <bess/pb/port.pb.h>

#include "KitFixture.h"

namespace {

using namespace agent_test;
using nlohmann::json;
using Norv::Agent::FlightRecorder;
using support::TemporaryFolder;

std::vector<std::string> textsIn(const std::string& path) {
  std::vector<std::string> texts;
  Skein::Reader reader(path);
  reader.read([&](const Skein::Record& record) {
    texts.emplace_back();
    record.appendText(texts.back());
  });
  EXPECT_EQ(reader.problem(), "");
  return texts;
}

CommandReport failedCommand() {
  CommandReport report;
  report.seq = 4;
  report.type = Norv::listDrivers;
  report.queue = "main";
  report.outcome = Outcome::failed;
  report.announced = report.started = Norv::Agent::Time(1ms);
  report.ended = Norv::Agent::Time(3ms);
  return report;
}

// Leaves a record that says so.
void leave(const std::string& text) {
  Twine::trace<Norv::ManagerTrace::connecting>(text);
}
std::string leftAs(const std::string& text) {
  return "Connecting to Bessd (" + text + ")";
}

// Without its time.
json detailsIn(const std::string& path) {
  std::ifstream in(path);
  json details = json::parse(in, nullptr, false);
  if (details.is_object()) details.erase("time");
  return details;
}

struct FlightRecorderTest : testing::Test {
  json details(int number) const {
    return detailsIn(path + ".failure-" + std::to_string(number) + ".json");
  }

  TemporaryFolder folder;
  const std::string path = folder.file("run");
};

TEST_F(FlightRecorderTest, FreezesTheRecordsAndWhatIsKnownOfTheCommand) {
  FlightRecorder recorder(path);
  leave("before");
  recorder.freeze(failedCommand(), "error_code: 14");
  leave("after");
  EXPECT_THAT(textsIn(path + ".failure-1"), testing::ElementsAre(leftAs("before")));
  EXPECT_EQ(textsIn(path).size(), 2u);
  EXPECT_EQ(details(1), json({{"command",
                               {{"seq", 4},
                                {"type", "listDrivers"},
                                {"queue", "main"},
                                {"outcome", "failed"},
                                {"waited_us", 0.0},
                                {"service_us", 2000.0}}},
                              {"reason", "error_code: 14"}}));
}

TEST_F(FlightRecorderTest, LetsOnlyTheOwnerReadWhatItWrites) {
  const mode_t before = umask(0);
  FlightRecorder recorder(path);
  recorder.freeze(failedCommand(), "");
  umask(before);
  using std::filesystem::perms;
  for (const char* file : {"", ".failure-1", ".failure-1.json"}) {
    EXPECT_EQ(std::filesystem::status(path + file).permissions(),
              perms::owner_read | perms::owner_write)
        << file;
  }
}

// Else another file, or a link, could have got the name meanwhile.
TEST_F(FlightRecorderTest, OpensTheDetailsOnceByTheirName) {
  FlightRecorder recorder(path);
  const int events = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  // Of two of a kind behind each other only one would come.
  ASSERT_GE(::inotify_add_watch(events, folder.file("").c_str(), IN_OPEN | IN_CLOSE), 0)
      << std::strerror(errno);
  recorder.freeze(failedCommand(), "");
  int opened = 0;
  alignas(inotify_event) char bytes[4096];
  for (ssize_t size; (size = ::read(events, bytes, sizeof bytes)) > 0;) {
    for (ssize_t at = 0; at < size;) {
      const auto& event = reinterpret_cast<const inotify_event&>(bytes[at]);
      const bool ofDetails = event.len > 0 && event.name == std::string("run.failure-1.json");
      if (ofDetails && (event.mask & IN_OPEN) != 0) ++opened;
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
  }
  ::close(events);
  EXPECT_EQ(opened, 1);
}

TEST_F(FlightRecorderTest, SaysWhenTheCommandFailed) {
  FlightRecorder recorder(path);
  const auto seconds = [](const std::string& text) {
    std::tm parts{};
    const char* rest = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    EXPECT_THAT(rest ? rest : "", testing::MatchesRegex("\\.[0-9]{6}Z")) << text;
    return ::timegm(&parts);
  };
  const std::time_t before = std::time(nullptr);
  recorder.freeze(failedCommand(), "");
  const std::time_t after = std::time(nullptr);
  std::ifstream in(path + ".failure-1.json");
  const std::time_t said = seconds(json::parse(in)["time"]);
  EXPECT_GE(said, before - 1);  // time() may be behind the clock
  EXPECT_LE(said, after + 1);
}

TEST_F(FlightRecorderTest, TakesTheCodeOfTheRpcAndAMissingReasonFromTheTrace) {
  FlightRecorder recorder(path);
  Twine::trace<Norv::ClientTrace::failedResponse>(14, std::string("gone"));
  recorder.freeze(failedCommand(), "");
  EXPECT_EQ(details(1)["grpc_code"], 14);
  EXPECT_EQ(details(1)["reason"],
            "Failure to process response: error_code: 14 error_message: gone");
  Twine::trace<Norv::ClientTrace::failedSend>(4, std::string("late"));
  recorder.freeze(failedCommand(), "as the agent says");
  EXPECT_EQ(details(2)["grpc_code"], 4);
  EXPECT_EQ(details(2)["reason"], "as the agent says");
  recorder.freeze(std::nullopt, "no command's");
  EXPECT_EQ(details(3).count("grpc_code"), 0u);
}

TEST_F(FlightRecorderTest, TheFailureOfAnotherThreadOrAnOlderCommandIsNotTheCommands) {
  FlightRecorder recorder(path);
  const auto fail = [] {
    Twine::trace<Norv::ClientTrace::failedResponse>(14, std::string("gone"));
  };
  const auto end = [](U64 seq) {
    const Lumo::String text("x");
    Twine::trace<Norv::AgentTrace::ended>(seq, text, text, text, U64{0});
  };
  std::thread(fail).join();
  recorder.freeze(failedCommand(), "");
  fail();
  end(3);
  recorder.freeze(failedCommand(), "");
  fail();
  end(4);
  recorder.freeze(failedCommand(), "");
  for (const int number : {1, 2}) {
    EXPECT_EQ(details(number).count("grpc_code"), 0u);
    EXPECT_EQ(details(number)["reason"], "the error flag rose while the command was under way");
  }
  EXPECT_EQ(details(3)["grpc_code"], 14);
}

TEST_F(FlightRecorderTest, SaysNullWhereNoCommandFailed) {
  FlightRecorder recorder(path);
  recorder.freeze(std::nullopt, "somebody said so");
  EXPECT_EQ(details(1), json({{"command", nullptr}, {"reason", "somebody said so"}}));
}

TEST_F(FlightRecorderTest, TextsThatAreNotUtf8GiveValidJson) {
  FlightRecorder recorder(path);
  CommandReport report = failedCommand();
  report.queue = "q\"\\\x80\xc3(";
  recorder.freeze(report, "half \xe2\x82 \x1b[1m \n \xff");
  ASSERT_FALSE(details(1).is_discarded());
  const std::string replaced = "\xef\xbf\xbd";
  EXPECT_EQ(details(1)["command"]["queue"], "q\"\\" + replaced + replaced + "(");
  EXPECT_EQ(details(1)["reason"], "half " + replaced + " \x1b[1m \n " + replaced);
}

TEST_F(FlightRecorderTest, GoesOnAfterTheCopiesOfAnEarlierRun) {
  for (const char* name : {"run.failure-2", "run.failure-9.json", "run.failure-x",
                           "run.failure-31.old", "other.failure-40"}) {
    std::ofstream(folder.file(name)) << "kept";
  }
  {
    FlightRecorder recorder(path);
    recorder.freeze(std::nullopt, "first");
    recorder.freeze(std::nullopt, "second");
  }
  FlightRecorder recorder(path);
  recorder.freeze(std::nullopt, "third");
  EXPECT_EQ(details(10)["reason"], "first");
  EXPECT_EQ(details(11)["reason"], "second");
  EXPECT_EQ(details(12)["reason"], "third");
  EXPECT_EQ(folder.names().size(), 5u + 2 + 3 * 2);
  std::ifstream kept(folder.file("run.failure-9.json"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "kept");
}

TEST_F(FlightRecorderTest, MakesNoCopyAfterTheHighestNumberThereIs) {
  std::ofstream(path + ".failure-4294967295") << "kept";
  FlightRecorder recorder(path);
  testing::internal::CaptureStderr();
  recorder.freeze(std::nullopt, "first");
  recorder.freeze(std::nullopt, "second");
  const std::string said = "flight recorder: no number comes after " + path +
                           ".failure-4294967295; move the copies of earlier runs away\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), said + said);
  EXPECT_THAT(folder.names(), testing::ElementsAre("run", "run.failure-4294967295"));
}

TEST_F(FlightRecorderTest, KeepsTheFileOfTheRunBeforeAsPrevious) {
  for (const char* run : {"first", "second", "third"}) {
    const FlightRecorder recorder(path);
    leave(run);
  }
  EXPECT_THAT(textsIn(path), testing::ElementsAre(leftAs("third")));
  EXPECT_THAT(textsIn(path + ".previous"), testing::ElementsAre(leftAs("second")));
  EXPECT_THAT(folder.names(), testing::ElementsAre("run", "run.previous"));
}

TEST_F(FlightRecorderTest, LeavesWhatIsNoTraceFileAlone) {
  const auto refused = [&](const std::string& reason) {
    try {
      const FlightRecorder recorder(path);
      ADD_FAILURE() << reason;
    } catch (const Lumo::ErrnoException& error) {
      EXPECT_EQ(error.errnoValue(), EEXIST);
      EXPECT_EQ(std::string(error.what()).find("cannot make the trace file " + path + ": "), 0u);
      EXPECT_NE(std::string(error.what()).find(reason), std::string::npos) << error.what();
    }
    EXPECT_THAT(folder.names(), testing::ElementsAre("run"));
  };
  std::ofstream(path) << "text";
  refused("no trace file");
  std::ifstream text(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(text), {}), "text");
  std::filesystem::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  refused("no regular file");
  EXPECT_TRUE(std::filesystem::is_fifo(path));
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  refused("no regular file");
}

TEST_F(FlightRecorderTest, LeavesAPreviousFileThatIsNoTraceFileAlone) {
  std::ofstream(path + ".previous") << "text";
  { const FlightRecorder nothingToKeep(path); }
  EXPECT_THROW(FlightRecorder{path}, Lumo::ErrnoException);
  std::ifstream text(path + ".previous");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(text), {}), "text");
  EXPECT_THAT(folder.names(), testing::ElementsAre("run", "run.previous"));
}

TEST_F(FlightRecorderTest, TakesTheNameOfAnEmptyFile) {
  std::ofstream(path).close();
  const FlightRecorder recorder(path);
  leave("here");
  EXPECT_THAT(textsIn(path), testing::ElementsAre(leftAs("here")));
  EXPECT_THAT(folder.names(), testing::ElementsAre("run"));
}

TEST_F(FlightRecorderTest, FollowsASymbolicLink) {
  std::filesystem::create_directory(folder.file("there"));
  std::filesystem::create_symlink("there/trace", path);
  for (const char* run : {"first", "second"}) {
    FlightRecorder recorder(path);
    leave(run);
    recorder.freeze(std::nullopt, run);
  }
  EXPECT_THAT(folder.names(), testing::ElementsAre("run", "there"));
  EXPECT_TRUE(std::filesystem::is_symlink(path));
  const std::string trace = folder.file("there/trace");
  EXPECT_THAT(textsIn(trace), testing::ElementsAre(leftAs("second")));
  EXPECT_THAT(textsIn(trace + ".previous"), testing::ElementsAre(leftAs("first")));
  EXPECT_THAT(textsIn(trace + ".failure-2"), testing::ElementsAre(leftAs("second")));
  std::filesystem::create_symlink("round", folder.file("round"));
  try {
    const FlightRecorder recorder(folder.file("round"));
    ADD_FAILURE() << "made";
  } catch (const Lumo::ErrnoException& error) {
    EXPECT_EQ(error.errnoValue(), ELOOP);
  }
}

TEST_F(FlightRecorderTest, FollowsNoLinkOfSomebodyElseWhereEverybodyMayWrite) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives a link to somebody else";
  constexpr uid_t somebody = 65534;
  const std::string common = folder.file("common"), link = common + "/trace";
  const std::string target = folder.file("target");
  std::filesystem::create_directory(common);
  ASSERT_EQ(::chmod(common.c_str(), 01777), 0);
  std::filesystem::create_symlink(target, link);
  { const FlightRecorder own(link); }
  ASSERT_TRUE(std::filesystem::remove(target));
  ASSERT_EQ(::lchown(link.c_str(), somebody, somebody), 0);
  try {
    const FlightRecorder recorder(link);
    ADD_FAILURE() << "made";
  } catch (const Lumo::ErrnoException& error) {
    EXPECT_EQ(error.errnoValue(), EACCES);
    EXPECT_THAT(error.what(), testing::HasSubstr(link + " is a link that somebody else has put"));
  }
  EXPECT_FALSE(std::filesystem::exists(target));
  // The folder's owner could put anything there.
  ASSERT_EQ(::chown(common.c_str(), somebody, somebody), 0);
  { const FlightRecorder owners(link); }
  EXPECT_TRUE(std::filesystem::exists(target));
  // And one's own leads where one has chosen.
  ASSERT_EQ(::lchown(link.c_str(), 0, 0), 0);
  { const FlightRecorder own(link); }
  ASSERT_EQ(::lchown(link.c_str(), somebody, somebody), 0);
  // Nobody else could.
  ASSERT_EQ(::chown(common.c_str(), 0, 0), 0);
  ASSERT_EQ(::chmod(common.c_str(), 0755), 0);
  const FlightRecorder safe(link);
}

TEST_F(FlightRecorderTest, LeavesAFileThatSomebodyWritesAlone) {
  auto writer = std::make_unique<FlightRecorder>(path);
  leave("one");
  try {
    const FlightRecorder second(path);
    ADD_FAILURE() << "made";
  } catch (const Lumo::ErrnoException& error) {
    EXPECT_EQ(error.errnoValue(), EBUSY);
    EXPECT_NE(std::string(error.what()).find("process " + std::to_string(::getpid())),
              std::string::npos)
        << error.what();
  }
  leave("two");
  EXPECT_THAT(textsIn(path), testing::ElementsAre(leftAs("one"), leftAs("two")));
  EXPECT_THAT(folder.names(), testing::ElementsAre("run"));
  writer.reset();
  EXPECT_NO_THROW(FlightRecorder{path});
}

TEST_F(FlightRecorderTest, MakesSoManyCopiesAndSaysWhichIsTheLast) {
  FlightRecorder recorder(path, FlightRecorder::usualSize, 2);
  testing::internal::CaptureStderr();
  for (const char* reason : {"first", "second", "third", "fourth"}) {
    recorder.freeze(failedCommand(), reason);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "flight recorder: " + path + ".failure-2 is the last copy of this run\n");
  EXPECT_THAT(folder.names(), testing::ElementsAre("run", "run.failure-1", "run.failure-1.json",
                                                   "run.failure-2", "run.failure-2.json"));
  EXPECT_EQ(details(1).count("note"), 0u);
  EXPECT_EQ(details(2)["reason"], "second");
  EXPECT_EQ(details(2)["note"], "the last copy of this run: later failures leave none");
}

TEST_F(FlightRecorderTest, ASecondOneTakesOverAndTheFirstStillFreezesItsOwn) {
  auto first = std::make_unique<FlightRecorder>(path);
  leave("one");
  FlightRecorder second(folder.file("second"));
  leave("two");
  first->freeze(std::nullopt, "of the first");
  second.freeze(std::nullopt, "of the second");
  EXPECT_THAT(textsIn(path + ".failure-1"), testing::ElementsAre(leftAs("one")));
  EXPECT_THAT(textsIn(folder.file("second.failure-1")), testing::ElementsAre(leftAs("two")));
  first.reset();
  leave("three");
  EXPECT_THAT(textsIn(folder.file("second")), testing::ElementsAre(leftAs("two"), leftAs("three")));
}

TEST_F(FlightRecorderTest, ACopyThatCannotBeWrittenIsReportedAndNoMore) {
  FlightRecorder recorder(path);
  std::filesystem::remove_all(std::filesystem::path(path).parent_path());
  testing::internal::CaptureStderr();
  recorder.freeze(failedCommand(), "");
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(said.find("flight recorder: "), 0u) << said;
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
}

struct KitRecorder : KitFixture {
  json details() const { return detailsIn(folder.file("run.failure-1.json")); }
  void failOneCommand() {
    answerNth(0, {14, "gone", ""});
    connect();
    enqueue();
    announce();
    ASSERT_TRUE(ticking([&] { return kit.stopped(); }));
  }

  TemporaryFolder folder;
};

TEST_F(KitRecorder, FreezesTheCommandThatFailed) {
  kit.failureTextIs([] { return std::string("as the daemon said"); });
  kit.flightRecorderIs(folder.file("run"));
  failOneCommand();
  EXPECT_EQ(details()["command"]["type"], "getVersion");
  EXPECT_EQ(details()["command"]["outcome"], "failed");
  EXPECT_EQ(details()["reason"], "as the daemon said");
}

TEST_F(KitRecorder, ShowsTheRequestOfTheCommandUnlessItIsTooLarge) {
  kit.flightRecorderIs(folder.file("run"));
  const auto requestOf = [&](std::size_t nameLength) {
    auto* request = new bess::pb::CreatePortRequest;
    request->set_name(std::string(nameLength, 'p'));
    Lumo::ActivityLockAnchor activity;
    agent.queue("main")->cmdBatchEnq(Lumo::allocate<TrackedCmd>(
        kit.ledger(), agent.log, agent.made++, request, Norv::createPort));
    agent.announce("main");
  };
  connect();
  answerNth(0, {14, "gone", ""});
  requestOf(3);
  ASSERT_TRUE(ticking([&] { return kit.stopped(); }));
  EXPECT_EQ(details()["command"]["request"], json({{"name", "ppp"}}));
  answerNth(0, {14, "gone", ""});
  {
    Lumo::ActivityLockAnchor activity;
    kit.clearAndGoOn();
  }
  requestOf(70000);
  ASSERT_TRUE(ticking([&] { return kit.stopped(); }));
  EXPECT_EQ(detailsIn(folder.file("run.failure-2.json"))["command"]["request"],
            "too large to be shown: 70004 bytes");
}

TEST_F(KitRecorder, FindsTheReasonItselfWhereTheAgentHasNone) {
  kit.flightRecorderIs(folder.file("run"));
  failOneCommand();
  EXPECT_EQ(details()["reason"], "Failure to process response: error_code: 14 error_message: gone");
  EXPECT_EQ(details()["grpc_code"], 14);
  EXPECT_EQ(kit.ledger()->lastFailure()->errorText, "gone");
}

TEST_F(KitRecorder, HasTheCodeOfTheRpcThoughAnOlderCommandEndsWithIt) {
  kit.flightRecorderIs(folder.file("run"));
  answersAre({{0, "", "\x0a\x7f"}}, {14, "gone", ""});
  connect();
  const Lumo::Ptr<TrackedCmd> kept = enqueueKept();
  enqueue();
  announce();
  ASSERT_TRUE(agent.eventually([&] { return kit.stopped(); }));
  EXPECT_THAT(ends(), testing::ElementsAre(testing::Pair(1, Outcome::undecodable),
                                           testing::Pair(2, Outcome::failed)));
  EXPECT_EQ(details()["command"]["seq"], 2);
  EXPECT_EQ(details()["grpc_code"], 14);
  EXPECT_EQ(details()["reason"], "gone");
}

TEST_F(KitRecorder, AFlagThatTheHandlerOfItsAnswerRaisesIsNotTheCommands) {
  // A message whose first field, the error, has code 17.
  answerNth(0, {0, "", "\x0a\x02\x08\x11"});
  kit.flightRecorderIs(folder.file("run"));
  connect();
  {
    Lumo::ActivityLockAnchor activity;
    agent.queue()->cmdBatchEnq(Lumo::allocate<Norv::Agent::Tracked<RaisingCmd>>(
        kit.ledger(), agent.status, agent.log, agent.made++,
        support::newRequest(Norv::createPort).release(), Norv::createPort));
    agent.announce();
  }
  ASSERT_TRUE(ticking([&] { return ends().size() == 1; }));
  EXPECT_TRUE(kit.stopped());
  EXPECT_THAT(ends(), testing::ElementsAre(testing::Pair(1, Outcome::refused)));
  EXPECT_EQ(told->reports[0].errorCode, 17);
  EXPECT_TRUE(details()["command"].is_null());
  EXPECT_EQ(details()["reason"],
            "the error flag rose, and not by the failure of a tracked command");

  answerNth(0, {14, "gone", ""});
  {
    Lumo::ActivityLockAnchor activity;
    kit.clearAndGoOn();
  }
  enqueue();
  announce();
  ASSERT_TRUE(ticking([&] { return kit.stopped(); }));
  EXPECT_EQ(kit.ledger()->count(Outcome::failed), 1u);
}

TEST_F(KitRecorder, AFlagThatTheAgentRaisesItselfIsNoCommands) {
  kit.flightRecorderIs(folder.file("run"));
  Lumo::ActivityLockAnchor activity;
  agent.status->errorOccuredIs(true);
  EXPECT_TRUE(details()["command"].is_null());
  EXPECT_EQ(details()["reason"],
            "the error flag rose, and not by the failure of a tracked command");
}

TEST_F(KitRecorder, ASecondRecorderStaysOn) {
  kit.flightRecorderIs(folder.file("first"));
  kit.flightRecorderIs(folder.file("run"));
  leave("here");
  EXPECT_THAT(textsIn(folder.file("run")), testing::ElementsAre(leftAs("here")));
}

}  // namespace
