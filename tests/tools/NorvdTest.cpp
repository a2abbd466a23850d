// The parts of norvd that need no daemon.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Holds.h"
#include "Memory.h"
#include "Page.h"
#include "UnderWay.h"
#include "Values.h"
#include "WantedFiles.h"

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

void write(const std::string& file, const std::string& text) {
  std::ofstream(file) << text;
}

}  // namespace

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
  for (const char* word : {"module fib", "fib"}) {
    holds.refused(fib, "x", "", start);
    holds.lift("other");
    EXPECT_TRUE(holds.hold(fib, "x", start));
    holds.lift(word);
    EXPECT_FALSE(holds.hold(fib, "x", start)) << word;
  }
}

TEST(UnderWayTest, TellsTheNextProcessWhatThisOneDiedOf) {
  const Folder folder;
  const auto left = [&](auto action) {
    UnderWay before;
    before.fileIs(folder.file("note"));
    action(before);
    UnderWay after;
    after.fileIs(folder.file("note"));
    return after.takeDeath().value_or("none");
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
}

TEST(UnderWayTest, ADeathIsToldOnce) {
  const Folder folder;
  UnderWay before;
  before.fileIs(folder.file("note"));
  before.noteIs("fib");
  before.died();
  UnderWay after, later;
  after.fileIs(folder.file("note"));
  EXPECT_EQ(after.takeDeath(), "fib");
  later.fileIs(folder.file("note"));
  EXPECT_FALSE(later.takeDeath());
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
  EXPECT_TRUE(first.lock());
  Memory second(folder.path(), "switch1:10514");
  EXPECT_FALSE(second.lock());
  Memory other(folder.path(), "switch2:10514");
  EXPECT_TRUE(other.lock());
}

TEST(MemoryTest, SaysWhatCannotBeWritten) {
  const Folder folder;
  write(folder.file("file"), "");
  Memory memory(folder.file("file"), "switch1:10514");
  memory.save();
  EXPECT_NE(memory.trouble(), "");
  std::filesystem::remove(folder.file("file"));
  memory.save();
  EXPECT_EQ(memory.trouble(), "");
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
  const auto note = parsedDeathNote(deathNoteOf("module \"a\n", "x"));
  EXPECT_EQ(note.first, "module \"a\n");
  EXPECT_EQ(note.second, "x");
  EXPECT_EQ(parsedDeathNote("no note").first, "");
  EXPECT_EQ(parsedDeathNote("[1]").first, "");
}

TEST(PageTest, WritesOutWhatMeansSomething) {
  EXPECT_EQ(htmlEscaped("<a href=\"x\">'&'\x1b"),
            "&lt;a href=&quot;x&quot;&gt;&#39;&amp;&#39;\\x1b");
}
