#include <fcntl.h>
#include <support/Redirected.h>
#include <support/ThisProcess.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fstream>
#include <thread>
#include <utility>

#include "TraceFixture.h"

using SkeinFile = TraceTest;

namespace {

// The record and its description as a module without Twine writes them.
void logByHand(Skein::TraceFile* file, int* id, int value, int line = 12) {
  if (!file->msgIdInitialized(*id)) {
    Skein::MsgDesc descriptor(file, id, "hand.cpp", line, true);
    descriptor.formatString() << value;
    descriptor << "value "
               << "%s";
    descriptor.finish();
  }
  Skein::RingBuf& ring = file->log(4);
  ring.startMsg(file, *id);
  ring.put(value);
  ring.endMsg();
}

}  // namespace

TEST_F(SkeinFile, IsTheDefaultOnlyWhileAHandleIs) {
  EXPECT_EQ(Skein::defaultSkeinFile(), nullptr);
  ringIsOn();
  EXPECT_EQ(Skein::defaultSkeinFile(), skein->traceFile());
  EXPECT_EQ(skein->traceFile(), skein->mtTraceFile());
  skein.reset();
  EXPECT_EQ(Skein::defaultSkeinFile(), nullptr);
}

TEST_F(SkeinFile, InSingleThreadedModeTheHandleYieldsItsSingleFile) {
  ringIsOn({.multiThreaded = false});
  EXPECT_EQ(skein->mtTraceFile(), nullptr);
  ASSERT_NE(skein->traceFile(), nullptr);
  EXPECT_EQ(Skein::defaultSkeinFile(), skein->traceFile());
  Twine::trace<Sample::numbered>(1);
  EXPECT_EQ(textsIn(path), std::vector<std::string>{"n=1"});
}

TEST_F(SkeinFile, APointIsDescribedOnce) {
  ringIsOn();
  for (int i = 0; i < 100; ++i) Twine::trace<Sample::numbered>(i);
  EXPECT_EQ(sitesIn(path), 1U);
  const auto records = recordsIn(path);
  ASSERT_EQ(records.size(), 100U);
  for (const Seen& record : records) EXPECT_EQ(record.id, records[0].id);
  EXPECT_EQ(records[99].text, "n=99");
}

TEST_F(SkeinFile, TheIdStartsAtZeroAndIsFilledByTheDescriptor) {
  ringIsOn();
  int id = 0;
  EXPECT_FALSE(skein->traceFile()->msgIdInitialized(id));
  logByHand(skein->traceFile(), &id, 5);
  EXPECT_NE(id, 0);
  EXPECT_TRUE(skein->traceFile()->msgIdInitialized(id));
  const int first = id;
  logByHand(skein->traceFile(), &id, 6);
  EXPECT_EQ(id, first);
  EXPECT_EQ(textsIn(path), (std::vector<std::string>{"value 5", "value 6"}));
  EXPECT_EQ(recordsIn(path)[0].id, 1) << "ids in a file start at 1";
}

TEST_F(SkeinFile, ATextWithoutPlacesIsFollowedByItsArguments) {
  ringIsOn();
  int id = 0;
  Skein::MsgDesc descriptor(skein->traceFile(), &id, "hand.cpp", 12, false);
  descriptor.formatString() << 5;
  descriptor << "load in %s:";
  descriptor.finish();
  Skein::RingBuf& ring = skein->traceFile()->log(4);
  ring.startMsg(skein->traceFile(), id);
  ring.put(5);
  ring.endMsg();
  EXPECT_EQ(textsIn(path), std::vector<std::string>{"load in %s: 5"});
}

TEST_F(SkeinFile, BehindATextThatEndsInABlankArgumentsAreStillApart) {
  ringIsOn();
  int id = 0;
  Skein::MsgDesc descriptor(skein->traceFile(), &id, "hand.cpp", 12, false);
  descriptor.formatString() << 5 << 6;
  descriptor << "at ";
  descriptor.finish();
  Skein::RingBuf& ring = skein->traceFile()->log(4);
  ring.startMsg(skein->traceFile(), id);
  ring.put(5);
  ring.put(6);
  ring.endMsg();
  EXPECT_EQ(textsIn(path), std::vector<std::string>{"at 5 6"});
}

// As when a library is unloaded and another one comes to its place.
TEST_F(SkeinFile, ANumberThatIsUsedAgainIsAnotherPoint) {
  ringIsOn();
  int id = 0;
  logByHand(skein->traceFile(), &id, 1, 12);
  const int first = std::exchange(id, 0);
  logByHand(skein->traceFile(), &id, 2, 13);
  EXPECT_NE(id, first);
  id = 0;
  logByHand(skein->traceFile(), &id, 3, 12);
  EXPECT_EQ(id, first);
  EXPECT_EQ(sitesIn(path), 2U);
}

TEST_F(SkeinFile, AThreadMayWriteTwoByTurns) {
  ringIsOn({.size = 64 * 1024});
  Skein::TraceHandle another(folder.file("another"), {.size = 64 * 1024});
  for (int i = 0; i < 500; ++i) {
    Twine::trace<Sample::numbered>(i);
    Skein::defaultSkeinHandleIs(&another);
    Twine::trace<Sample::numbered>(-i);
    Skein::defaultSkeinHandleIs(skein.get());
  }
  EXPECT_EQ(recordsIn(path).size(), 500U);
  EXPECT_EQ(recordsIn(folder.file("another")).size(), 500U);
}

TEST_F(SkeinFile, ADescriptorMayHaveNoTextAtAll) {
  ringIsOn();
  int id = 0;
  Skein::MsgDesc(skein->traceFile(), &id, "", 0, true).finish();
  Skein::Reader reader(path);
  EXPECT_EQ(reader.problem(), "");
  ASSERT_TRUE(reader.sites()[0]);
  EXPECT_EQ(reader.sites()[0]->file + reader.sites()[0]->text, "");
}

TEST_F(SkeinFile, ADescriptorSaysWhereThePointIs) {
  ringIsOn();
  Twine::trace<Sample::placed>(1, std::string("text"));
  Skein::Reader reader(path);
  ASSERT_TRUE(reader.sites()[0]);
  const Skein::Site& site = *reader.sites()[0];
  EXPECT_EQ(site.file, "Sample.lumo");
  EXPECT_EQ(site.line, 102);
  EXPECT_EQ(site.function, "processResponse");
  EXPECT_EQ(site.facility, "Sample");
  EXPECT_EQ(site.level, 0);
  EXPECT_EQ(site.codes, "is");
  EXPECT_EQ(site.text, "Failure: error_code: %s error_message: %s");
}

TEST_F(SkeinFile, ArgumentsComeBackWithTheirTypes) {
  ringIsOn();
  Twine::trace<Sample::four>(true, -5, Lumo::Name("name"), Skein::QNull());
  Skein::Reader reader(path);
  std::vector<Skein::Value> values;
  reader.read([&](const Skein::Record& record) {
    values = record.arguments();
    EXPECT_EQ(std::get<std::string_view>(values.at(2)), "name");
  });
  ASSERT_EQ(values.size(), 4U);
  EXPECT_TRUE(std::get<bool>(values[0]));
  EXPECT_EQ(std::get<int>(values[1]), -5);
  EXPECT_TRUE(std::holds_alternative<Skein::QNull>(values[3]));
}

TEST_F(SkeinFile, EachFileDescribesThePointsItRecords) {
  const std::string second = folder.file("second.skein");
  Skein::TraceHandle one(path);
  Skein::TraceHandle two(second);
  // The same points get different ids in the two files.
  Skein::defaultSkeinHandleIs(&one);
  Twine::trace<Sample::plain>();
  Twine::trace<Sample::numbered>(1);
  Skein::defaultSkeinHandleIs(&two);
  Twine::trace<Sample::numbered>(2);
  Twine::trace<Sample::plain>();
  Skein::defaultSkeinHandleIs(&one);
  Twine::trace<Sample::numbered>(3);
  Skein::defaultSkeinHandleIs(&two);
  Twine::trace<Sample::numbered>(4);
  Skein::defaultSkeinHandleIs(nullptr);
  Twine::trace<Sample::numbered>(5);
  EXPECT_EQ(textsIn(path), (std::vector<std::string>{"Entry", "n=1", "n=3"}));
  EXPECT_EQ(textsIn(second), (std::vector<std::string>{"n=2", "Entry", "n=4"}));
  EXPECT_EQ(sitesIn(path), 2U);
  EXPECT_EQ(sitesIn(second), 2U) << "going back and forth describes nothing anew";
}

TEST_F(SkeinFile, HasTheSizeGivenAndTheOldestRecordsGoFirst) {
  for (U64 size : {U64{16} * 1024, U64{100} * 1000, U64{1} << 20}) {
    ringIsOn({.size = size, .multiThreaded = false});
    constexpr int count = 50000;
    for (int i = 0; i < count; ++i) Twine::trace<Sample::numbered>(i);
    struct stat status;
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(static_cast<U64>(status.st_size), size);
    EXPECT_LE(static_cast<U64>(status.st_blocks) * 512, size + 65536);
    Skein::Reader reader(path);
    const auto records = recordsOf(reader);
    ASSERT_GE(records.size(), size / 32 / 4);
    for (std::size_t i = 0; i < records.size(); ++i) {
      ASSERT_EQ(records[i].text,
                "n=" + std::to_string(count - static_cast<int>(records.size() - i)));
    }
    EXPECT_EQ(reader.counters().overwritten, count - records.size());
    EXPECT_EQ(reader.counters().dropped, 0U);
    skein.reset();
  }
}

TEST_F(SkeinFile, LongTextsAreCutAndTheRestOfTheRecordStays) {
  ringIsOn({.size = 16 * 1024});
  Twine::trace<Sample::pair>(std::string(100000, 'x'), 77);
  Twine::trace<Sample::numbered>(1);
  const auto texts = textsIn(path);
  ASSERT_EQ(texts.size(), 2U);
  EXPECT_EQ(texts[0].substr(0, 6), "a=xxxx");
  EXPECT_GT(texts[0].size(), 500U);
  EXPECT_EQ(texts[0].substr(texts[0].size() - 8), "... b=77");
}

TEST_F(SkeinFile, ATextIsCutBetweenItsCharacters) {
  ringIsOn({.size = 16 * 1024});
  const std::string rest = "... b=7";
  // In one of them the limit is within a character.
  for (const std::size_t before : {0U, 1U}) {
    std::string text(before, 'x');
    for (int i = 0; i < 5000; ++i) text += "\xc3\xa4";
    Twine::trace<Sample::pair>(text, 7);
    const std::string shown = textsIn(path).back();
    ASSERT_GT(shown.size(), 500U);
    EXPECT_EQ(shown.substr(2, 400), text.substr(0, 400));
    EXPECT_EQ(shown.substr(shown.size() - rest.size()), rest);
    EXPECT_EQ((shown.size() - 2 - before - rest.size()) % 2, 0U) << before;
  }
  // No character begins anywhere.
  Twine::trace<Sample::pair>(std::string(5000, '\x80'), 7);
  EXPECT_EQ(textsIn(path).back(), "a=" + rest);
}

TEST_F(SkeinFile, ATextMayFillABlockToItsEnd) {
  ringIsOn({.size = 16 * 1024});
  Twine::trace<Sample::plain>();
  const std::string text(headerOf(path).blockSize - sizeof(Skein::BlockHeader) -
                             sizeof(Skein::RecordHeader) - sizeof(U32),
                         'x');
  int id = 0;
  Skein::MsgDesc descriptor(skein->traceFile(), &id, "hand.cpp", 12, true);
  descriptor.formatString() << text;
  descriptor << "%s";
  descriptor.finish();
  Skein::RingBuf& ring = skein->traceFile()->log(4);
  ring.startMsg(skein->traceFile(), id);
  ring.put(text);
  ring.endMsg();
  EXPECT_EQ(textsIn(path), (std::vector<std::string>{"Entry", text}));
}

// A text leaves 64 bytes for what follows it.
TEST_F(SkeinFile, ARecordFillsABlockAtMost) {
  for (const unsigned numbers : {8U, 9U}) {
    ringIsOn({.size = 16 * 1024});
    int id = 0;
    Skein::MsgDesc descriptor(skein->traceFile(), &id, "hand.cpp", 12, false);
    descriptor.formatString() << std::string();
    for (unsigned i = 0; i < numbers; ++i) descriptor.formatString() << U64{i};
    descriptor.finish();
    int other = 0;
    logByHand(skein->traceFile(), &other, 1);
    Skein::RingBuf& ring = skein->traceFile()->log(4);
    ring.startMsg(skein->traceFile(), id);
    ring.put(std::string(100000, 'x'));
    for (unsigned i = 0; i < numbers; ++i) ring.put(U64{i});
    ring.endMsg();
    logByHand(skein->traceFile(), &other, 2);
    Skein::Reader reader(path);
    EXPECT_EQ(recordsOf(reader).size(), numbers == 8 ? 3U : 2U);
    EXPECT_EQ(reader.counters().dropped, numbers - 8);
    EXPECT_EQ(reader.problem(), "");
    EXPECT_EQ(textsIn(path).back(), "value 2");
    skein.reset();
  }
}

// What is left behind a long one and the numbers takes its length, and none of its characters.
TEST_F(SkeinFile, AShortTextIsCutWhereTheRecordHasNoRoomForIt) {
  ringIsOn({.size = 16 * 1024});
  int id = 0;
  Skein::MsgDesc descriptor(skein->traceFile(), &id, "hand.cpp", 12, false);
  descriptor.formatString() << std::string();
  for (U64 i = 0; i < 7; ++i) descriptor.formatString() << i;
  descriptor.formatString() << 5 << std::string();
  descriptor.finish();
  Skein::RingBuf& ring = skein->traceFile()->log(4);
  ring.startMsg(skein->traceFile(), id);
  ring.put(std::string(100000, 'x'));
  for (U64 i = 0; i < 7; ++i) ring.put(i);
  ring.put(5);
  ring.put(std::string("abc"));
  ring.endMsg();
  EXPECT_EQ(Skein::Reader(path).counters().dropped, 0U);
  const auto texts = textsIn(path);
  ASSERT_EQ(texts.size(), 1U);
  EXPECT_EQ(texts[0].substr(texts[0].size() - 10), " 5 6 5 ...");
}

// As where an argument raises: the record has filled its block when it is given up.
TEST_F(SkeinFile, ARecordThatIsNotEndedTakesNoRoom) {
  ringIsOn({.size = 16 * 1024});
  int id = 0;
  Skein::MsgDesc descriptor(skein->traceFile(), &id, "hand.cpp", 12, false);
  descriptor.formatString() << std::string();
  for (U64 i = 0; i < 8; ++i) descriptor.formatString() << i;
  descriptor.finish();
  Skein::RingBuf& ring = skein->traceFile()->log(4);
  ring.startMsg(skein->traceFile(), id);
  ring.put(std::string(100000, 'x'));
  for (U64 i = 0; i < 8; ++i) ring.put(i);
  int other = 0;
  logByHand(skein->traceFile(), &other, 1);
  EXPECT_EQ(textsIn(path), std::vector<std::string>{"value 1"});
  EXPECT_EQ(Skein::Reader(path).counters().dropped, 0U);
}

TEST_F(SkeinFile, RecordsOfEveryLengthAreKeptAcrossBlocks) {
  ringIsOn({.size = 16 * 1024});
  for (std::size_t length = 0; length < 900; ++length) {
    const std::string text(length, 'y');
    Twine::trace<Sample::pair>(text, static_cast<int>(length));
    const auto texts = textsIn(path);
    ASSERT_FALSE(texts.empty());
    ASSERT_EQ(texts.back(), "a=" + text + " b=" + std::to_string(length));
  }
}

TEST_F(SkeinFile, WithoutRoomForADescriptorRecordsAreCountedAsDropped) {
  ringIsOn({.size = 16 * 1024});
  std::vector<int> ids(200, 0);
  int line = 0;
  for (int& id : ids) logByHand(skein->traceFile(), &id, 1, ++line);
  Skein::Reader reader(path);
  const auto records = recordsOf(reader);
  EXPECT_GT(records.size(), 10U);
  EXPECT_LT(records.size(), 200U);
  EXPECT_EQ(records.size() + reader.counters().dropped, 200U);
  EXPECT_EQ(reader.problem(), "");
}

TEST_F(SkeinFile, ADescriptorMayTakeAllTheRoomThereIsForThem) {
  for (const int tooMuch : {0, 1}) {
    ringIsOn({.size = 16 * 1024});
    const std::size_t room = headerOf(path).heapSize - sizeof(Skein::SiteHeader);
    int id = 0;
    Skein::MsgDesc descriptor(skein->traceFile(), &id, "", 1, false);
    descriptor << std::string(room + tooMuch, 'x').c_str();
    EXPECT_EQ(descriptor.finish() == 0, tooMuch == 1);
    EXPECT_EQ(sitesIn(path), 1U - tooMuch);
    EXPECT_EQ(Skein::Reader(path).problem(), "");
    skein.reset();
  }
}

TEST_F(SkeinFile, ReplacesAnOlderFileOfItsNameWithoutTouchingIt) {
  ringIsOn();
  Twine::trace<Sample::numbered>(1);
  Skein::Reader reader(path);
  EXPECT_FALSE(reader.replaced());
  {
    Skein::TraceHandle second(path);
    Twine::trace<Sample::numbered>(2);
    EXPECT_TRUE(reader.replaced());
    EXPECT_EQ(recordsOf(reader).size(), 2U) << "the first handle still writes its own file";
    EXPECT_TRUE(recordsIn(path).empty());
  }
}

TEST_F(SkeinFile, IsReplacedWhereNothingHasItsNameAnyMore) {
  ringIsOn();
  const Skein::Reader reader(path);
  EXPECT_FALSE(reader.replaced());
  std::filesystem::remove(path);
  EXPECT_TRUE(reader.replaced());
}

TEST_F(SkeinFile, AReaderTellsWhatTheHeaderSays) {
  for (const bool multiThreaded : {false, true}) {
    ringIsOn({.size = 16 * 1024, .multiThreaded = multiThreaded});
    const Skein::Reader reader(path);
    EXPECT_EQ(reader.counters().fileSize, 16384U);
    EXPECT_EQ(reader.counters().multiThreaded, multiThreaded);
    EXPECT_EQ(reader.counters().pid, static_cast<U32>(::getpid()));
    EXPECT_EQ(reader.counters().openedNs, headerOf(path).wallNs);
    skein.reset();
  }
}

TEST_F(SkeinFile, APointThatAReaderHasReadStaysWhereItIs) {
  ringIsOn();
  Twine::trace<Sample::numbered>(1);
  Skein::Reader reader(path);
  const Skein::Site* const site = reader.sites()[0].get();
  ASSERT_NE(site, nullptr);
  Twine::trace<Sample::plain>();
  EXPECT_EQ(recordsOf(reader).size(), 2U);
  EXPECT_EQ(reader.sites()[0].get(), site);
  EXPECT_TRUE(reader.sites()[1]);
}

TEST_F(SkeinFile, KnowsBothClocksAtItsBeginning) {
  const auto now = [](clockid_t clock) {
    timespec time;
    ::clock_gettime(clock, &time);
    return static_cast<U64>(time.tv_sec) * 1'000'000'000 + static_cast<U64>(time.tv_nsec);
  };
  const U64 wall = now(CLOCK_REALTIME), monotonic = now(CLOCK_MONOTONIC);
  ringIsOn();
  const Skein::FileHeader header = headerOf(path);
  EXPECT_GE(header.wallNs, wall);
  EXPECT_LE(header.wallNs, now(CLOCK_REALTIME));
  EXPECT_GE(header.monotonicNs, monotonic);
  EXPECT_LE(header.monotonicNs, now(CLOCK_MONOTONIC));
}

TEST_F(SkeinFile, ARecordHasItsTime) {
  ringIsOn();
  Twine::trace<Sample::numbered>(1);
  Twine::trace<Sample::numbered>(2);
  const auto records = recordsIn(path);
  const U64 atTheBeginning = headerOf(path).monotonicNs;
  EXPECT_GE(records[0].monotonicNs, atTheBeginning);
  EXPECT_GE(records[1].monotonicNs, records[0].monotonicNs);
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  EXPECT_LE(records[1].monotonicNs,
            static_cast<U64>(now.tv_sec) * 1'000'000'000 + static_cast<U64>(now.tv_nsec));
}

TEST_F(SkeinFile, AReaderGivesItsDescriptorBack) {
  ringIsOn();
  std::ofstream(folder.file("foreign")) << "of somebody else";
  const auto before = support::openDescriptors();
  for (int i = 0; i < 3; ++i) {
    Skein::Reader reader(path);
    EXPECT_THROW(Skein::Reader(folder.file("foreign")), Skein::FileError);
  }
  EXPECT_EQ(support::openDescriptors(), before);
}

TEST_F(SkeinFile, OneThatIsMadeOrCannotBeGivesItsDescriptorBack) {
  std::filesystem::create_directory(folder.file("taken"));
  const auto before = support::openDescriptors();
  for (int i = 0; i < 3; ++i) {
    ringIsOn();
    skein = nullptr;
    EXPECT_THROW(Skein::TraceHandle(folder.file("taken")), Lumo::ErrnoException);
  }
  EXPECT_EQ(support::openDescriptors(), before);
}

TEST_F(SkeinFile, OneThatIsGoneOrCannotBeMadeIsNotMapped) {
  std::filesystem::create_directory(folder.file("taken"));
  const std::string here =
      std::filesystem::canonical(std::filesystem::path(path).parent_path()).string();
  const auto isMapped = [&] {
    std::ifstream in("/proc/self/maps");
    const std::string maps{std::istreambuf_iterator<char>(in), {}};
    return maps.find(here) != std::string::npos;
  };
  ringIsOn();
  EXPECT_TRUE(isMapped());
  skein.reset();
  EXPECT_FALSE(isMapped());
  EXPECT_THROW(Skein::TraceHandle(folder.file("taken")), Lumo::ErrnoException);
  EXPECT_FALSE(isMapped());
}

TEST_F(SkeinFile, ASnapshotThatIsMadeOrCannotBeGivesItsDescriptorBack) {
  ringIsOn();
  std::filesystem::create_directory(folder.file("taken"));
  const auto before = support::openDescriptors();
  for (int i = 0; i < 3; ++i) {
    Skein::snapshot(*skein->traceFile(), folder.file("frozen"));
    EXPECT_THROW(Skein::snapshot(*skein->traceFile(), folder.file("taken")), Lumo::ErrnoException);
  }
  EXPECT_EQ(support::openDescriptors(), before);
}

TEST_F(SkeinFile, WhatOthersHaveLeftIsNotKeptOpen) {
  std::ofstream(path + ".new-1-1") << "SKEIN\r\n\x1a";
  std::ofstream(path + ".new-1-2") << "somebody's";
  const auto before = support::openDescriptors();
  ringIsOn();
  skein.reset();
  EXPECT_EQ(support::openDescriptors(), before);
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"trace.skein", "trace.skein.new-1-2"}));
}

TEST_F(SkeinFile, ItsDescriptorMayBe0) {
  Skein::TraceHandle another(folder.file("another"), {.size = 16 * 1024});
  {
    const support::Redirected closed(STDIN_FILENO);  // what is opened next has its number
    errno = EEXIST;                                  // as of something before
    ringIsOn({.size = 16 * 1024});
    EXPECT_NE(::fcntl(STDIN_FILENO, F_GETFD), -1);
    const int again = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_NE(::flock(again, LOCK_EX | LOCK_NB), 0);
    ::close(again);
    Twine::trace<Sample::numbered>(1);
    skein.reset();
    EXPECT_EQ(textsIn(path), std::vector<std::string>{"n=1"});
    { Skein::TraceHandle next(path, {.size = 16 * 1024, .keepPrevious = true}); }
    Skein::snapshot(*another.traceFile(), folder.file("frozen"));
    EXPECT_EQ(::fcntl(STDIN_FILENO, F_GETFD), -1);
  }
  EXPECT_EQ(folder.names(),
            (std::vector<std::string>{"another", "frozen", "trace.skein", "trace.skein.previous"}));
}

TEST_F(SkeinFile, SaysWhyItCannotBeMade) {
  try {
    Skein::TraceHandle handle(folder.file("missing/trace.skein"));
    FAIL() << "made in a folder that is not there";
  } catch (const Lumo::ErrnoException& error) {
    EXPECT_EQ(error.errnoValue(), ENOENT);
    EXPECT_NE(error.message().stdString().find("missing/trace.skein"), std::string::npos);
  }
  EXPECT_THROW(Skein::TraceHandle(path, {.size = 100}), Lumo::RangeException);
  EXPECT_THROW(Skein::TraceHandle(path, {.size = U64{1} << 40}), Lumo::RangeException);
  EXPECT_TRUE(std::filesystem::is_empty(std::filesystem::path(path).parent_path()));
}

namespace {

// No file of this process grows beyond `size` while it lives.
class SmallDisk {
 public:
  explicit SmallDisk(rlim_t size) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    rlimit tight = before_;
    tight.rlim_cur = size;
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &tight);
  }
  ~SmallDisk() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    ::signal(SIGXFSZ, SIG_DFL);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

 private:
  rlimit before_;
};

}  // namespace

TEST_F(SkeinFile, LeavesNothingBehindWhereThereIsNoRoomForIt) {
  {
    const SmallDisk small(1 << 20);
    // The largest size that is taken.
    EXPECT_THROW(Skein::TraceHandle(path, {.size = U64{1} << 31}), Lumo::ErrnoException);
  }
  EXPECT_TRUE(folder.names().empty());
}

TEST_F(SkeinFile, ASnapshotLeavesNothingBehindWhereThereIsNoRoomForIt) {
  ringIsOn({.size = 64 * 1024});
  {
    const SmallDisk small(16 * 1024);
    EXPECT_THROW(Skein::snapshot(*skein->traceFile(), folder.file("frozen")), Lumo::ErrnoException);
  }
  EXPECT_EQ(folder.names(), std::vector<std::string>{"trace.skein"});
}

TEST_F(SkeinFile, AtItsEndNobodyHoldsABlock) {
  ringIsOn();
  std::thread([] { Twine::trace<Sample::plain>(); }).join();
  for (int i = 0; i < 1000; ++i) Twine::trace<Sample::numbered>(i);
  skein.reset();
  U64 records = 0;
  for (const Skein::BlockHeader& block : blocksIn(path)) {
    EXPECT_EQ(block.owner, 0U);
    records += block.records;
  }
  EXPECT_EQ(records, 1001U);
}

TEST_F(SkeinFile, WhatNoLivingProcessHoldsOfItsMakingIsClearedAway) {
  const auto make = [](const std::string& name) { std::ofstream(name) << "SKEIN\r\n\x1a"; };
  const std::string abandoned = path + ".new-1-1";
  const std::string ours = path + ".new-" + std::to_string(::getpid()) + "-";
  const std::string held = path + ".new-7-7";
  const std::string foreign = folder.file("other.skein.new-1-1");
  for (const std::string& name : {abandoned, held, foreign}) make(name);
  for (int serial = 1; serial < 1000; ++serial) make(ours + std::to_string(serial));
  std::ofstream(path + ".new-1-2") << "";                        // killed before it had its space
  std::ofstream(path + ".new-1-3") << std::string(16384, '\0');  // and before its header
  const int holder = ::open(held.c_str(), O_RDONLY);
  ASSERT_EQ(::flock(holder, LOCK_SH), 0);
  ringIsOn();
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"other.skein.new-1-1", "trace.skein",
                                                      "trace.skein.new-7-7"}));
  ::close(holder);
  const std::string frozen = folder.file("frozen.skein");
  make(frozen + ".new-1-1");
  Skein::snapshot(*skein->traceFile(), frozen);
  EXPECT_FALSE(std::filesystem::exists(frozen + ".new-1-1"));
  EXPECT_TRUE(std::filesystem::exists(frozen));
}

TEST_F(SkeinFile, NamesThatOthersHaveArePassedOver) {
  const std::string ours = path + ".new-" + std::to_string(::getpid()) + "-";
  for (int serial = 1; serial < 5000; ++serial) {
    std::ofstream(ours + std::to_string(serial)) << "somebody's";
  }
  ringIsOn();
  EXPECT_EQ(folder.names().size(), 5000U);
}

TEST_F(SkeinFile, WhatOnlyLooksLikeItsMakingIsLeftAlone) {
  const std::vector<std::string> others{"rules", "",     "1",     "1-",     "-1",   "1-1x",
                                        "x1-1",  "1.1",  "1-1-1", "-1-1",   "+1-1", "1-+1",
                                        " 1-1",  "1-1~", "1--1",  "1-1.bak"};
  for (const std::string& other : others) std::ofstream(path + ".new-" + other) << "SKEIN\r\n\x1a";
  std::ofstream(path + ".new-2026-11") << "somebody's list";
  std::filesystem::create_directory(path + ".new-1-1");
  ASSERT_EQ(::mkfifo((path + ".new-1-2").c_str(), 0600), 0);
  std::ofstream(folder.file("target")) << "";
  std::filesystem::create_symlink("target", path + ".new-1-3");
  std::filesystem::create_symlink("nowhere", path + ".new-1-4");
  const auto before = folder.names();
  ASSERT_EQ(before.size(), others.size() + 6);
  ringIsOn();
  skein.reset();
  std::filesystem::remove(path);
  EXPECT_EQ(folder.names(), before);
}

TEST_F(SkeinFile, AReaderSeesEachRecordOnceWhileItIsWritten) {
  ringIsOn({.size = 64 * 1024});
  Skein::Reader reader(path);
  int next = 0;
  for (int round = 0; round < 300; ++round) {
    for (int i = 0; i < round % 60; ++i) Twine::trace<Sample::numbered>(next + i);
    for (const Seen& record : recordsOf(reader)) {
      ASSERT_EQ(record.text, "n=" + std::to_string(next));
      ++next;
    }
  }
  EXPECT_GT(next, 5000);
  EXPECT_EQ(reader.problem(), "");
}

TEST_F(SkeinFile, AReaderSeesARecordThatJustFillsItsBlock) {
  ringIsOn({.size = 16 * 1024});
  Skein::Reader reader(path);
  const std::size_t room = headerOf(path).blockSize - sizeof(Skein::BlockHeader);
  Twine::trace<Sample::numbered>(1);
  EXPECT_EQ(recordsOf(reader).size(), 1U);
  // Behind that one, which takes 32 bytes, the empty ones go up to the end.
  ASSERT_EQ((room - 32) % sizeof(Skein::RecordHeader), 0U);
  for (std::size_t at = 32; at < room; at += sizeof(Skein::RecordHeader)) {
    Twine::trace<Sample::plain>();
    EXPECT_EQ(recordsOf(reader).size(), 1U) << at;
  }
  EXPECT_EQ(blocksIn(path).size(), 1U);
}

TEST_F(SkeinFile, ASnapshotKeepsWhatWasThere) {
  const std::string frozen = folder.file("frozen.skein");
  ringIsOn({.size = 64 * 1024});
  for (int i = 0; i < 5000; ++i) Twine::trace<Sample::numbered>(i);
  const auto before = textsIn(path);
  Skein::snapshot(*skein->traceFile(), frozen);
  for (int i = 0; i < 5000; ++i) Twine::trace<Sample::plain>();
  EXPECT_EQ(textsIn(frozen), before);
  EXPECT_EQ(before.back(), "n=4999");
  EXPECT_THROW(Skein::snapshot(*skein->traceFile(), folder.file("missing/f.skein")),
               Lumo::ErrnoException);
}

TEST_F(SkeinFile, ASnapshotIsWholeWhereverTheRingIs) {
  const std::string frozen = folder.file("frozen.skein");
  ringIsOn({.size = 16 * 1024});
  const Skein::FileHeader header = headerOf(path);
  for (int i = 0; headerOf(path).blocksWanted < 3 * header.blockCount; ++i) {
    Twine::trace<Sample::numbered>(i);
    if (i % 10 != 0) continue;
    Skein::snapshot(*skein->traceFile(), frozen);
    ASSERT_EQ(textsIn(frozen), textsIn(path)) << i;
    for (const Skein::BlockHeader& block : blocksIn(frozen)) ASSERT_EQ(block.owner, 0U) << i;
  }
}

TEST_F(SkeinFile, ASnapshotSaysWhyItCannotBeMade) {
  ringIsOn();
  try {
    Skein::snapshot(*skein->traceFile(), folder.file("missing/frozen"));
    FAIL() << "made in a folder that is not there";
  } catch (const Lumo::ErrnoException& error) {
    EXPECT_EQ(error.errnoValue(), ENOENT);
    EXPECT_NE(error.message().stdString().find("missing/frozen"), std::string::npos);
  }
}

TEST_F(SkeinFile, ASnapshotThatCannotBeWrittenSaysSoAndLeavesNothing) {
  ringIsOn();
  std::filesystem::create_directory(folder.file("taken"));
  EXPECT_THROW(Skein::snapshot(*skein->traceFile(), folder.file("taken")), Lumo::ErrnoException);
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"taken", "trace.skein"}));
}

TEST_F(SkeinFile, AnErrorFromBeforeIsNotTheSnapshots) {
  ringIsOn();
  errno = EBADF;
  EXPECT_NO_THROW(Skein::snapshot(*skein->traceFile(), folder.file("frozen")));
}

// At every record of several rounds of the ring: a reader finds nothing of a block's former use.
TEST_F(SkeinFile, ARecordInTheMakingLooksLikeNone) {
  ringIsOn({.size = 16 * 1024});
  Twine::trace<Sample::numbered>(-1);
  int id = 0;
  Skein::TraceFile* const file = skein->traceFile();
  Skein::Reader reader(path);
  int seen = 0;
  for (int i = 0; i < 2000; ++i) {
    if (!file->msgIdInitialized(id)) {
      Skein::MsgDesc descriptor(file, &id, "hand.cpp", 12, true);
      descriptor.formatString() << i;
      descriptor << "value %s";
      descriptor.finish();
    }
    Skein::RingBuf& ring = file->log(4);
    ring.startMsg(file, id);
    ring << i;
    const auto news = recordsOf(reader);
    ASSERT_EQ(reader.problem(), "") << i;
    ASSERT_EQ(news.size(), 1U) << i;
    seen += static_cast<int>(news.size());
    ring.endMsg();
  }
  EXPECT_EQ(seen, 2000);
}
