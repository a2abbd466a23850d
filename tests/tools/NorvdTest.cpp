// The parts of norvd that need no daemon.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netdb.h>
#include <support/Redirected.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include <Norv/State/SwitchLock.h>

#include "Backoff.h"
#include "Documents.h"
#include "Holds.h"
#include "Memory.h"
#include "Metrics.h"
#include "Options.h"
#include "Page.h"
#include "Status.h"
#include "UnderWay.h"
#include "Values.h"
#include "WantedFiles.h"
#include "Web.h"
#include "agent/ObjectNames.h"
#include "agent/PageAddress.h"

using namespace Norvd;
using namespace std::chrono_literals;
using Norv::State::Kind;
using Norv::State::Object;

namespace {

const Object fib{Kind::module, "fib"};
const Time start{};

class Folder {
 public:
  Folder() {
    std::string name = std::filesystem::temp_directory_path() / "norvd-XXXXXX";
    path_ = mkdtemp(name.data());
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Whether it becomes so, in good time.
bool comes(const std::function<bool()>& condition) {
  const auto until = std::chrono::steady_clock::now() + 60s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

void write(const std::string& file, const std::string& text) {
  std::ofstream(file) << text;
}

std::string textOf(const std::string& file) {
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

}  // namespace

TEST(LogTest, ALineThatNobodyMakesRoomForIsLostAndCounted) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  std::string read(1 << 20, '\0'), next(1 << 20, '\0');
  {
    const support::Redirected there(STDERR_FILENO, ends[1]);
    for (int i = 0; i < 100000; ++i) log(Level::info, "state: one of many");
    read.resize(static_cast<std::size_t>(::read(ends[0], read.data(), read.size())));
    log(Level::info, "state: the next");
    next.resize(static_cast<std::size_t>(::read(ends[0], next.data(), next.size())));
  }
  close(ends[0]);
  const auto lines = std::count(read.begin(), read.end(), '\n');
  EXPECT_GT(lines, 100);
  EXPECT_NE(next.find("log: " + std::to_string(100000 - lines) + " lines are lost"),
            std::string::npos)
      << next;
  EXPECT_TRUE(next.ends_with("norvd: state: the next\n")) << next;
}

TEST(HoldsTest, ARefusedObjectWaitsLongerEachTime) {
  Holds holds(1s);
  EXPECT_FALSE(holds.hold(fib, "x", start));
  Time now = start;
  std::chrono::nanoseconds last{0};
  for (int i = 0; i < 4; ++i) {
    holds.refused(fib, "x", "no room", now);
    const Time begin = now;
    ASSERT_TRUE(holds.hold(fib, "x", now)->waits);
    while (holds.hold(fib, "x", now)->waits) now += 100ms;
    EXPECT_GT(now - begin, last);
    last = now - begin;
  }
  EXPECT_EQ(last, 8s);
  EXPECT_EQ(holds.hold(fib, "x", now)->why, Holds::Hold::Why::refused);
  EXPECT_EQ(holds.hold(fib, "x", now)->text, "no room");
}

TEST(HoldsTest, APauseHasABound) {
  Holds holds(1s);
  for (int i = 0; i < 60; ++i) holds.refused(fib, "x", "", start);
  EXPECT_TRUE(holds.hold(fib, "x", start + Holds::longest - 1ms)->waits);
  EXPECT_FALSE(holds.hold(fib, "x", start + Holds::longest)->waits);
}

TEST(HoldsTest, AnotherValueStartsAnew) {
  Holds holds(1s);
  holds.refused(fib, "x", "", start);
  EXPECT_FALSE(holds.hold(fib, "y", start));
  holds.refused(fib, "y", "", start);
  EXPECT_FALSE(holds.hold(fib, "y", start + 1s)->waits);
}

TEST(HoldsTest, WhatIsChangedBackOftenIsAContest) {
  Holds holds(1s);
  holds.done(fib, "x", start);
  holds.done(fib, "x", start);
  EXPECT_FALSE(holds.hold(fib, "x", start)) << "twice is chance";
  holds.done(fib, "x", start);
  const auto hold = holds.hold(fib, "x", start);
  ASSERT_TRUE(hold);
  EXPECT_EQ(hold->why, Holds::Hold::Why::contested);
  EXPECT_TRUE(hold->waits);
  EXPECT_FALSE(holds.hold(fib, "x", start + 2s)->waits);
  holds.done(fib, "x", start);
  EXPECT_TRUE(holds.hold(fib, "x", start + 2s)->waits) << "longer each time";
}

TEST(HoldsTest, AContestIsOverWhenNobodyChangesItBack) {
  Holds holds(1s);
  for (int i = 0; i < 3; ++i) holds.done(fib, "x", start);
  holds.seen({}, start + 10s);
  EXPECT_TRUE(holds.hold(fib, "x", start + 10s));
  holds.seen({fib}, start + 100s);
  EXPECT_TRUE(holds.hold(fib, "x", start + 100s)) << "it was changed back again";
  holds.seen({}, start + 100s);
  EXPECT_FALSE(holds.hold(fib, "x", start + 100s));
}

TEST(HoldsTest, ARefusalIsOverWhenItIsRight) {
  Holds holds(1s);
  holds.refused(fib, "x", "", start);
  holds.seen({}, start);
  EXPECT_FALSE(holds.hold(fib, "x", start));
}

TEST(HoldsTest, IsLiftedByHand) {
  Holds holds(1s);
  holds.refused(fib, "x", "", start);
  EXPECT_FALSE(holds.lift({Kind::port, "fib"}));
  EXPECT_TRUE(holds.hold(fib, "x", start));
  EXPECT_TRUE(holds.lift(fib));
  EXPECT_FALSE(holds.hold(fib, "x", start));
}

TEST(HoldsTest, AreForgottenWithTheSwitch) {
  Holds holds(1s);
  holds.refused(fib, "x", "", start);
  for (int i = 0; i < 5; ++i) holds.done(fib, "y", start);
  holds.forget();
  EXPECT_FALSE(holds.hold(fib, "x", start));
  EXPECT_FALSE(holds.hold(fib, "y", start));
}

TEST(BackoffTest, PausesGrowToABound) {
  constexpr int crashed = -1;
  for (const auto& [exitStatus, longest] :
       {std::pair(crashed, Backoff::longest), std::pair(0, Backoff::longest),
        std::pair<int, std::chrono::milliseconds>(unusable, Backoff::longest),
        std::pair<int, std::chrono::milliseconds>(early, Backoff::longestAfterLoss)}) {
    Backoff backoff(1);
    auto most = Backoff::shortest;
    for (int i = 0; i < 20; ++i) {
      const auto pause = backoff.pauseAfter(exitStatus, 0ms);
      EXPECT_GE(pause, most / 2) << exitStatus << " " << i;
      EXPECT_LE(pause, most) << exitStatus << " " << i;
      most = std::min(most * 2, longest);
    }
    EXPECT_EQ(most, longest);
  }
}

TEST(BackoffTest, DoNotComeTogether) {
  std::set<std::chrono::milliseconds> pauses;
  for (unsigned seed = 1; seed <= 100; ++seed) {
    Backoff backoff(seed);
    for (int i = 0; i < 10; ++i) backoff.pauseAfter(-1, 0ms);
    pauses.insert(backoff.pauseAfter(-1, 0ms));
  }
  EXPECT_GT(pauses.size(), 50U);
  EXPECT_GT(*pauses.rbegin() - *pauses.begin(), Backoff::longest / 4);
}

TEST(BackoffTest, BeginsAnewAfterWhatWentWell) {
  for (const auto& [exitStatus, lived] :
       {std::pair<int, std::chrono::milliseconds>(again, 0ms), std::pair(-1, Backoff::longest)}) {
    Backoff backoff(1);
    for (int i = 0; i < 20; ++i) backoff.pauseAfter(-1, Backoff::longest - 1ms);
    EXPECT_LE(backoff.pauseAfter(exitStatus, lived), Backoff::shortest);
    EXPECT_LE(backoff.pauseAfter(-1, 0ms), 2 * Backoff::shortest);
  }
}

TEST(BackoffTest, AnEarlyLossDoesNotWaitForWhatWasBefore) {
  Backoff backoff(1);
  for (int i = 0; i < 20; ++i) backoff.pauseAfter(-1, 0ms);
  EXPECT_LE(backoff.pauseAfter(early, 0ms), Backoff::longestAfterLoss);
}

TEST(WebTest, ServesAgainWhenItsSocketIsBroken) {
  const Folder folder;
  const std::string address = "unix:" + folder.file("pages");
  Board board;
  const Metrics metrics;
  std::mutex mutex;
  std::string notice;
  const Web web(address, board, metrics, [&](const std::string& text) {
    const std::lock_guard guard(mutex);
    if (!text.empty()) notice = text;
  });
  const auto served = [&] {
    httplib::Client client(folder.file("pages"));
    client.set_address_family(AF_UNIX);
    return static_cast<bool>(client.Get("/healthz"));
  };
  ASSERT_TRUE(comes(served));
  for (int file = 0; file < 1024; ++file) {
    int listens = 0;
    socklen_t size = sizeof listens;
    getsockopt(file, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size);
    if (listens != 0) shutdown(file, SHUT_RDWR);
  }
  EXPECT_TRUE(comes([&] {
    const std::lock_guard guard(mutex);
    return notice.starts_with("the pages cannot be served at " + address + ": ");
  }));
  EXPECT_TRUE(comes(served));
}

TEST(WebTest, SaysThatThereIsNoSuchHost) {
  Board board;
  const Metrics metrics;
  std::mutex mutex;
  std::string notice;
  const Web web("nowhere.invalid:1", board, metrics, [&](const std::string& text) {
    const std::lock_guard guard(mutex);
    notice = text;
  });
  std::string said;
  EXPECT_TRUE(comes([&] {
    const std::lock_guard guard(mutex);
    said = notice;
    return said.starts_with("the pages cannot be served at nowhere.invalid:1: ");
  }));
  // As the resolver says it, or its network; not as a call that was never made.
  EXPECT_TRUE(said.find(gai_strerror(EAI_NONAME)) != std::string::npos ||
              said.find(gai_strerror(EAI_AGAIN)) != std::string::npos)
      << said;
}

TEST(UnderWayTest, TellsTheNextProcessWhatThisOneDiedOf) {
  const Folder folder;
  const auto left = [&](auto action) {
    UnderWay before;
    before.fileIs(folder.file("note"));
    action(before);
    UnderWay after;
    after.fileIs(folder.file("note"));
    const auto death = after.takeDeath();
    return death ? death->note + (death->aborted ? " aborted" : "") : "none";
  };
  EXPECT_EQ(left([](UnderWay&) {}), "none");
  EXPECT_EQ(left([](UnderWay& one) { one.noteIs("fib"); }), "none") << "it was killed, no more";
  EXPECT_EQ(left([](UnderWay& one) {
              one.noteIs("a longer one");
              one.noteIs("fib");
              one.died();
            }),
            "fib");
  EXPECT_EQ(left([](UnderWay& one) {
              one.noteIs("fib");
              one.died();
              one.noteIs("next");
            }),
            "fib");
  EXPECT_EQ(left([](UnderWay& one) {
              one.noteIs("");
              one.died();
            }),
            "none")
      << "nothing was under way";
  EXPECT_EQ(left([](UnderWay& one) {
              one.noteIs("fib");
              one.aborted();
            }),
            "fib aborted");
  EXPECT_EQ(left([](UnderWay& one) { one.aborted(); }), " aborted") << "without a command, too";
}

TEST(UnderWayTest, ADeathIsToldOnce) {
  const Folder folder;
  UnderWay before;
  before.fileIs(folder.file("note"));
  before.noteIs("fib");
  before.died();
  UnderWay after, later;
  after.fileIs(folder.file("note"));
  EXPECT_EQ(after.takeDeath().value().note, "fib");
  later.fileIs(folder.file("note"));
  EXPECT_FALSE(later.takeDeath());
}

TEST(UnderWayTest, SaysWhatCannotBeWrittenUntilItCan) {
  const Folder folder;
  UnderWay note;
  const std::string file = folder.file("none/note");
  EXPECT_THROW(note.fileIs(file), std::runtime_error);
  note.noteIs("lost");
  EXPECT_THROW(note.verify(file), std::runtime_error);
  std::filesystem::create_directory(folder.file("none"));
  note.fileIs(file);
  EXPECT_NO_THROW(note.verify(file));
  note.noteIs("kept");
  note.fileIs(file);  // it has it
  note.died();
  UnderWay next;
  next.fileIs(file);
  const auto death = next.takeDeath();
  ASSERT_TRUE(death);
  EXPECT_EQ(death->note, "kept");
}

TEST(UnderWayTest, DoesNotFollowALink) {
  const Folder folder;
  std::filesystem::create_symlink(folder.file("elsewhere"), folder.file("note"));
  UnderWay one;
  EXPECT_THROW(one.fileIs(folder.file("note")), std::runtime_error);
}

TEST(MemoryTest, KeepsWhatMustOutliveTheProcess) {
  const Folder folder;
  Memory before(folder.path(), "switch1:10514");
  before.starts = 7;
  for (int i = 0; i < 12; ++i) before.failureIs("failure " + std::to_string(i));
  before.deaths["module fib"] = {"value", 2, "createModule", WallTime(100s)};
  before.save();
  Memory after(folder.path(), "switch1:10514");
  after.load();
  EXPECT_EQ(after.starts, 7U);
  ASSERT_EQ(after.failures().size(), 10U);
  EXPECT_EQ(after.failures().front().text, "failure 2");
  EXPECT_EQ(after.failures().back().text, "failure 11");
  const Death& death = after.deaths.at("module fib");
  EXPECT_EQ(death.value, "value");
  EXPECT_EQ(death.times, 2U);
  EXPECT_EQ(death.last, WallTime(100s));
  EXPECT_FALSE(death.quarantined());
  Memory other(folder.path(), "switch2:10514");
  other.load();
  EXPECT_EQ(other.starts, 0U) << "each switch has its own";
}

TEST(MemoryTest, IsForOneProcessAtATime) {
  const Folder folder;
  Memory first(folder.path(), "switch1:10514");
  EXPECT_EQ(first.lock(), "");
  Memory second(folder.path(), "switch1:10514");
  EXPECT_EQ(second.lock(), "norvd, process " + std::to_string(getpid()) + ", has it, by " +
                               folder.file("switch1_10514.lock"));
  Memory other(folder.path(), "switch2:10514");
  EXPECT_EQ(other.lock(), "");
}

TEST(MemoryTest, WaitsForTheEndOfAnApply) {
  const Folder folder;
  std::optional<Norv::State::SwitchLock> apply(std::in_place, folder.path(), "switch1:10514",
                                               Norv::State::applyingProgram);
  ASSERT_TRUE(apply->take());
  Memory memory(folder.path(), "switch1:10514");
  std::thread keeper([&] { EXPECT_EQ(memory.lock(), ""); });
  apply.reset();
  keeper.join();
}

TEST(MemoryTest, SaysWhatCannotBeWritten) {
  const Folder folder;
  write(folder.file("file"), "");
  Memory memory(folder.file("file"), "switch1:10514");
  memory.save();
  EXPECT_TRUE(memory.troubles().contains("norvd"));
  std::filesystem::remove(folder.file("file"));
  memory.save();
  EXPECT_TRUE(memory.troubles().empty());
}

TEST(MemoryTest, WhatCanBeWrittenDoesNotHideWhatCannot) {
  const Folder folder;
  Memory memory(folder.path(), "switch1:10514");
  std::filesystem::create_directory(memory.file("wanted.yaml.new"));
  memory.lastGoodIs("modules: {}\n");
  memory.save();
  EXPECT_EQ(memory.troubles().size(), 1U);
  EXPECT_TRUE(memory.troubles().contains("wanted.yaml"));
}

TEST(MemoryTest, ADocumentThatIsKeptAlreadyIsNoTrouble) {
  const Folder folder;
  Memory memory(folder.path(), "switch1:10514");
  memory.lastGoodIs("modules: {}\n");
  std::filesystem::create_directory(memory.file("wanted.yaml.new"));
  memory.lastGoodIs("ports: {}\n");
  EXPECT_TRUE(memory.troubles().contains("wanted.yaml"));
  memory.lastGoodIs("modules: {}\n");
  EXPECT_TRUE(memory.troubles().empty());
}

TEST(MemoryTest, KeepsTheLastRecordings) {
  const Folder folder;
  const Memory memory(folder.path(), "switch1:10514");
  const std::string trace = memory.file("trace");
  for (int i = 1; i <= 12; ++i) {
    write(trace, "recording " + std::to_string(i));
    memory.keepRecording("trace", "reason " + std::to_string(i));
  }
  write(trace + ".failure-1.note", "not a recording");
  memory.removeOldRecordings("trace", 8);
  std::set<std::string> names;
  for (const auto& one : std::filesystem::directory_iterator(folder.path())) {
    names.insert(one.path().filename());
  }
  EXPECT_EQ(names.size(), 2 * 8 + 1U);
  EXPECT_FALSE(std::filesystem::exists(trace + ".failure-4"));
  EXPECT_FALSE(std::filesystem::exists(trace + ".failure-4.json"));
  EXPECT_EQ(textOf(trace + ".failure-5"), "recording 5");
  EXPECT_EQ(textOf(trace + ".failure-12"), "recording 12");
  EXPECT_NE(textOf(trace + ".failure-12.json").find("\"reason\":\"reason 12\""), std::string::npos);
}

TEST(MemoryTest, TakesAllThatIsAskedAgain) {
  const Folder folder;
  Memory memory(folder.path(), "switch1:10514");
  EXPECT_TRUE(memory.takeRetries().empty());
  EXPECT_TRUE(memory.troubles().empty());
  write(memory.file("retry"), "module a\nb\n");
  EXPECT_EQ(memory.takeRetries(), (std::vector<std::string>{"module a", "b"}));
  EXPECT_TRUE(memory.takeRetries().empty());
  EXPECT_FALSE(std::filesystem::exists(memory.file("retry")));
}

TEST(MemoryTest, SaysWhatIsAskedAndCannotBeRead) {
  const Folder folder;
  Memory memory(folder.path(), "switch1:10514");
  std::filesystem::create_symlink(folder.file("elsewhere"), memory.file("retry"));
  write(folder.file("elsewhere"), "module a\n");
  EXPECT_TRUE(memory.takeRetries().empty()) << "a link is not followed";
  EXPECT_TRUE(memory.troubles().contains("retry"));
  EXPECT_TRUE(std::filesystem::exists(folder.file("elsewhere")));
}

TEST(MemoryTest, FilesAreItsOwnersAlone) {
  const Folder folder;
  Memory memory(folder.path(), "switch1:10514");
  memory.save();
  memory.lastGoodIs("modules: {}\n");
  for (const char* purpose : {"norvd", "wanted.yaml"}) {
    EXPECT_EQ(std::filesystem::status(memory.file(purpose)).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
  EXPECT_EQ(memory.lastGood(), "modules: {}\n");
}

TEST(MemoryTest, PartOfTheLastDocumentIsNone) {
  const Folder folder;
  Memory memory(folder.path(), "switch1:10514");
  memory.lastGoodIs("modules:\n  a: Sink\n  b: Sink\n");
  const std::string whole = textOf(memory.file("wanted.yaml"));
  for (const std::size_t length : {std::size_t{0}, std::size_t{5}, whole.size() - 1}) {
    write(memory.file("wanted.yaml"), whole.substr(0, length));
    EXPECT_FALSE(memory.lastGood()) << length;
    EXPECT_TRUE(std::filesystem::remove(memory.file("wanted.yaml.damaged"))) << length;
    EXPECT_FALSE(std::filesystem::exists(memory.file("wanted.yaml")));
  }
  write(memory.file("wanted.yaml"), whole);
  EXPECT_EQ(memory.lastGood(), "modules:\n  a: Sink\n  b: Sink\n");
}

TEST(DocumentsTest, ALastGoodOneThatCannotBeUsedIsSaidOnce) {
  const Folder folder;
  Options options;
  options.wanted = {folder.file("wanted.yaml")};
  Memory memory(folder.path(), "switch1:10514");
  Norv::State::LiveSwitch with, without;
  with.offer.moduleClasses = {"OfAPlugin"};
  write(options.wanted.front(), "modules: {a: OfAPlugin}\n");
  Documents before(options, memory);
  before.refresh(with);
  ASSERT_NE(before.inForce(), nullptr);
  write(options.wanted.front(), "modules: {a: Nothing}\n");
  Documents after(options, memory);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) after.refresh(without);
  const std::string log = testing::internal::GetCapturedStderr();
  const std::string line = "document: the last good one cannot be used: ";
  ASSERT_NE(log.find(line), std::string::npos) << log;
  EXPECT_EQ(log.find(line), log.rfind(line)) << log;
  EXPECT_EQ(after.inForce(), nullptr);
  // The daemon may come to offer it.
  after.refresh(with);
  EXPECT_NE(after.inForce(), nullptr);
}

TEST(WantedFilesTest, SeesWhatChanges) {
  const Folder folder;
  const std::string file = folder.file("wanted.yaml");
  write(file, "modules: {a: Sink}\n");
  WantedFiles files({file});
  files.stirred();
  EXPECT_FALSE(files.changed());
  EXPECT_FALSE(files.stirred());
  write(file, "modules: {b: Sink}\n");
  EXPECT_TRUE(files.stirred());
  EXPECT_TRUE(files.changed());
  EXPECT_TRUE(files.document({}).wanted.modules.contains("b"));
  write(folder.file("fresh"), "modules: {c: Sink}\n");
  std::filesystem::rename(folder.file("fresh"), file);
  EXPECT_TRUE(files.stirred());
  EXPECT_TRUE(files.changed());
  EXPECT_TRUE(files.document({}).wanted.modules.contains("c"));
  std::filesystem::remove(file);
  EXPECT_TRUE(files.stirred());
  EXPECT_TRUE(files.changed());
  EXPECT_THROW(files.document({}), Norv::State::DocumentError);
}

TEST(WantedFilesTest, AnotherFileOfTheFolderDoesNotStirThem) {
  const Folder folder;
  write(folder.file("wanted.yaml"), "modules: {a: Sink}\n");
  WantedFiles files({folder.file("wanted.yaml")});
  write(folder.file("other"), "x");
  write(folder.file("wanted.yaml"), "modules: {a: Sink}\n");
  EXPECT_FALSE(files.stirred());
}

TEST(WantedFilesTest, SeesWhatALinkLeadsTo) {
  const Folder folder;
  std::filesystem::create_directory(folder.file("far"));
  write(folder.file("far/document"), "modules: {a: Sink}\n");
  std::filesystem::create_symlink(folder.file("far/document"), folder.file("wanted.yaml"));
  WantedFiles files({folder.file("wanted.yaml")});
  write(folder.file("far/document"), "modules: {b: Sink}\n");
  EXPECT_TRUE(files.stirred());
  EXPECT_TRUE(files.changed());
}

TEST(WantedFilesTest, DoesNotWaitForAPipe) {
  const Folder folder;
  ASSERT_EQ(mkfifo(folder.file("wanted.yaml").c_str(), 0600), 0);
  const WantedFiles files({folder.file("wanted.yaml")});
  try {
    files.document({});
    FAIL() << "it was taken";
  } catch (const Norv::State::DocumentError& error) {
    EXPECT_NE(error.problems().front().text.find("is no regular file"), std::string::npos);
  }
}

TEST(WantedFilesTest, AnEmptyFileIsADocument) {
  const Folder folder;
  write(folder.file("wanted.yaml"), "");
  const WantedFiles files({folder.file("wanted.yaml")});
  EXPECT_EQ(files.document({}).wanted.objects(), 0U);
}

TEST(ValuesTest, TellObjectsApartByWhatIsWanted) {
  const auto valuesIn = [](const char* text) {
    const auto document = Norv::State::readDocument({{"x", text}});
    const auto objects = objectsOf(document.wanted);
    return valuesOf(document.wanted, {objects.begin(), objects.end()});
  };
  const auto one = valuesIn("modules: {a: Sink, b: Source}\nconnections: [b -> a]\n");
  const auto other = valuesIn("modules: {a: Sink, b: Sink}\nconnections: ['b -> 1:a']\n");
  EXPECT_EQ(one.size(), 3U);
  const Object connection{Kind::connection, "b:0"};
  EXPECT_EQ(one.at({Kind::module, "a"}), other.at({Kind::module, "a"}));
  EXPECT_NE(one.at({Kind::module, "b"}), other.at({Kind::module, "b"}));
  EXPECT_NE(one.at(connection), other.at(connection));
  EXPECT_EQ(valuesOf({}, {connection}).at(connection), "absent");
}

TEST(ValuesTest, ANoteIsReadAsItWasWritten) {
  const auto note = parsedDeathNote(written(DeathNote{"module \"a", "x", "createModule"}));
  ASSERT_TRUE(note);
  EXPECT_EQ(note->object, "module \"a");
  EXPECT_EQ(note->value, "x");
  EXPECT_EQ(note->command, "createModule");
  for (const char* damaged :
       {"", "no note", "[1]", "{}", R"({"object":1,"value":"","command":""})",
        R"({"object":"","value":"","command":""})", R"({"object":"module a","value":"x"})"}) {
    EXPECT_FALSE(parsedDeathNote(damaged)) << damaged;
  }
}

TEST(ValuesTest, ANoteOfAnyNameFits) {
  for (const std::string& name : {std::string(5000, 'x'), std::string(5000, '\n'),
                                  std::string("a\n\xff\"") + std::string(100, '\\')}) {
    const std::string key = Norvctl::deathKey({Kind::module, name});
    const std::string note = written(DeathNote{key, "value", "createModule"});
    EXPECT_LT(note.size(), UnderWay::most);
    const auto read = parsedDeathNote(note);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->object, key);
    EXPECT_NE(key, Norvctl::deathKey({Kind::module, name + "y"}));
  }
  EXPECT_EQ(Norvctl::deathKey(fib), "module fib");
}

TEST(ObjectNamesTest, APersonsWordsMeanObjects) {
  const auto mean = [](const std::string& words, const Object& object) {
    const auto meant = Norvctl::objectsMeant(words);
    return std::find(meant.begin(), meant.end(), object) != meant.end();
  };
  const Object voice{Kind::trafficClass, "voice"};
  EXPECT_TRUE(mean("fib", fib));
  EXPECT_TRUE(mean("module fib", fib));
  EXPECT_TRUE(mean("voice", voice));
  EXPECT_TRUE(mean("traffic class voice", voice));
  EXPECT_FALSE(mean("port fib", fib));
  EXPECT_FALSE(mean("fib", {Kind::module, "a fib"}));
  EXPECT_TRUE(mean("module fib", {Kind::port, "module fib"})) << "a name may be anything";
}

// A look at each key for each object would take minutes.
TEST(StatusTest, TellsOfManyObjects) {
  constexpr std::size_t many = 200000;
  auto picture = std::make_shared<Picture>();
  for (std::size_t i = 0; i < many; ++i) {
    picture->objects[{Kind::module, "m" + std::to_string(i)}].standing = Standing::pending;
  }
  Status status;
  status.picture = picture;
  const auto json = nlohmann::json::parse(statusJson(status));
  EXPECT_EQ(json.at("objects").size(), many);
  EXPECT_EQ(json.at("objects").at("module m7").at("state"), "pending");
}

TEST(StatusTest, TellsWhatIsUnderWay) {
  Status status;
  EXPECT_TRUE(nlohmann::json::parse(statusJson(status)).at("under_way").is_null());
  status.underWay = {"createModule", "module fib", WallTime(100s), 2.5};
  const auto json = nlohmann::json::parse(statusJson(status)).at("under_way");
  EXPECT_EQ(json.at("command"), "createModule");
  EXPECT_EQ(json.at("object"), "module fib");
  EXPECT_EQ(json.at("since"), "1970-01-01T00:01:40Z");
  EXPECT_EQ(json.at("seconds"), 2.5);
}

TEST(PageAddressTest, IsReadStrictly) {
  using Norvctl::pageAddress;
  EXPECT_EQ(text(pageAddress("host:80").value()), "host:80");
  EXPECT_EQ(text(pageAddress("host").value()), "host:9514");
  EXPECT_EQ(text(pageAddress("[::1]:80").value()), "[::1]:80");
  EXPECT_EQ(text(pageAddress("[::1]").value()), "[::1]:9514");
  EXPECT_EQ(text(pageAddress("unix:/run/x").value()), "unix:/run/x");
  EXPECT_EQ(pageAddress("host:0").value().port, 0);
  for (const char* wrong :
       {"", ":80", "host:", "host:x", "host:80x", "host:65536", "host:-1", "host:99999999999",
        "::1", "[::1", "[::1]80", "[]:80", "a b:80", "http://host:80", "host:80/", "unix:"}) {
    EXPECT_FALSE(pageAddress(wrong)) << wrong;
  }
  EXPECT_FALSE(pageAddress("unix:" + std::string(108, 'x')));
}

TEST(PageTest, WritesOutWhatMeansSomething) {
  EXPECT_EQ(htmlEscaped("<a href=\"x\">'&'\x1b"),
            "&lt;a href=&quot;x&quot;&gt;&#39;&amp;&#39;\\x1b");
}
