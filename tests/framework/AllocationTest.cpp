#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "Thing.h"

namespace {

using Lumo::AllocTrackRow;
using Lumo::AllocTrackTypeInfo;
using Lumo::PtrInterface;

class Tracked : public PtrInterface {
  LUMO_OBJECT(Tracked)

 public:
  explicit Tracked(bool fails = false) : activeInConstructor(hasNotificationActive()) {
    if (fails) throw std::runtime_error("no");
  }
  void hasNotificationActiveIs(bool active) override {
    ++activations;
    PtrInterface::hasNotificationActiveIs(active);
  }

  const bool activeInConstructor;
  int activations = 0;
};
constinit const Lumo::LumoType Tracked::_lumoType("Tracked");

// Larger than its base, and without operators of its own.
class LargerTracked : public Tracked {
 public:
  char more[1000] = {};
};

// An object of a class that keeps to the base's operators.
class Plain : public PtrInterface {};

struct AllocationTest : testing::Test {
  const AllocTrackTypeInfo& record = Tracked::lumoAllocTrackTypeInfo_;
  const U64 allocations = record.allocations();
  const U64 deallocations = record.deallocations();
  const U64 bytes = record.bytes();
  const U64 live = record.live();
};

TEST_F(AllocationTest, GivesTheOnlyReference) {
  const auto object = Lumo::allocate<Tracked>();
  EXPECT_EQ(object->references(), 1u);
}

TEST_F(AllocationTest, ActivatesNotificationAfterTheConstructor) {
  const auto object = Lumo::allocate<Tracked>();
  EXPECT_FALSE(object->activeInConstructor);
  EXPECT_TRUE(object->hasNotificationActive());
  EXPECT_EQ(object->activations, 1);
}

TEST_F(AllocationTest, PassesTheFailureOfAConstructorOn) {
  EXPECT_THROW(Lumo::allocate<Tracked>(true), std::runtime_error);
  EXPECT_EQ(record.allocations(), allocations + 1);
  EXPECT_EQ(record.live(), live);
}

TEST_F(AllocationTest, RecordsEachObject) {
  {
    const auto a = Lumo::allocate<Tracked>();
    const auto b = Lumo::allocate<Tracked>();
    EXPECT_EQ(record.allocations(), allocations + 2);
    EXPECT_EQ(record.live(), live + 2);
    EXPECT_EQ(record.bytes(), bytes + 2 * sizeof(Tracked));
  }
  EXPECT_EQ(record.deallocations(), deallocations + 2);
  EXPECT_EQ(record.bytes(), bytes + 2 * sizeof(Tracked));
}

TEST_F(AllocationTest, RecordsASubclassWithTheSizeOfTheClass) {
  const auto object = Lumo::allocate<LargerTracked>();
  object->more[999] = 1;
  EXPECT_EQ(record.bytes(), bytes + sizeof(Tracked));
}

TEST_F(AllocationTest, RecordsAnArrayAsOneAllocation) {
  const auto array = std::make_unique<Tracked[]>(3);
  EXPECT_EQ(record.allocations(), allocations + 1);
  EXPECT_GE(record.bytes(), bytes + 3 * sizeof(Tracked));
}

TEST_F(AllocationTest, BalancesAnArray) {
  { const auto array = std::make_unique<Tracked[]>(3); }
  EXPECT_EQ(record.deallocations(), deallocations + 1);
  EXPECT_EQ(record.live(), live);
}

TEST_F(AllocationTest, ClassesWithoutOperatorsAreRecordedAsTheBase) {
  const AllocTrackTypeInfo& base = PtrInterface::lumoAllocTrackTypeInfo_;
  const U64 before = base.live();
  const U64 bytesBefore = base.bytes();
  {
    const auto object = Lumo::allocate<Plain>();
    EXPECT_EQ(base.live(), before + 1);
    EXPECT_EQ(base.bytes(), bytesBefore + sizeof(PtrInterface));
    const auto array = std::make_unique<Plain[]>(2);
    EXPECT_EQ(base.live(), before + 2);
  }
  EXPECT_EQ(base.live(), before);
}

TEST_F(AllocationTest, AddsUpWhatThreadsDoAtOnce) {
  constexpr int threads = 100, objects = 100;  // more than count for themselves
  {
    std::barrier allRun(threads);
    std::vector<std::jthread> running;
    for (int i = 0; i < threads; ++i) {
      running.emplace_back([&] {
        allRun.arrive_and_wait();
        for (int n = 0; n < objects; ++n) Lumo::allocate<Tracked>();
        allRun.arrive_and_wait();
      });
    }
  }
  EXPECT_EQ(record.allocations(), allocations + threads * objects);
  EXPECT_EQ(record.deallocations(), deallocations + threads * objects);
  EXPECT_EQ(record.bytes(), bytes + threads * objects * sizeof(Tracked));
}

TEST_F(AllocationTest, KeepsWhatThreadsAfterEachOtherDid) {
  std::vector<Lumo::Ptr<Tracked>> kept;
  for (int i = 0; i < 50; ++i) {
    std::thread([&] { kept.push_back(Lumo::allocate<Tracked>()); }).join();
    EXPECT_EQ(record.allocations(), allocations + static_cast<U64>(i) + 1);
  }
  // On another thread than they were made.
  kept.clear();
  EXPECT_EQ(record.live(), live);
}

TEST_F(AllocationTest, CountsWhileOthersRead) {
  std::atomic<bool> over{false};
  std::jthread reader([&] {
    // What was made between two of its looks may have gone, too; none has gone that was never made.
    while (!over) EXPECT_GE(static_cast<std::int64_t>(record.live() - live), 0);
  });
  for (int n = 0; n < 20000; ++n) Lumo::allocate<Tracked>();
  over = true;
}

// An object that lives as long as its thread, and goes after all else of it.
TEST_F(AllocationTest, CountsWhatEndsWithItsThread) {
  for (int i = 0; i < 3; ++i) {
    std::thread([] {
      static thread_local Lumo::Ptr<Tracked> last;
      last = Lumo::allocate<Tracked>();
    }).join();
  }
  EXPECT_EQ(record.allocations(), allocations + 3);
  EXPECT_EQ(record.live(), live);
}

// More classes than a thread has counts for.
template <int number>
class Many : public PtrInterface {
  LUMO_OBJECT(Many)
};
template <int number>
constinit const Lumo::LumoType Many<number>::_lumoType("Many");

template <int... numbers>
void countsAll(std::integer_sequence<int, numbers...>) {
  const auto twice = [](auto make, const AllocTrackTypeInfo& record) {
    const auto kept = make();
    make();
    EXPECT_EQ(record.allocations(), 2u);
    EXPECT_EQ(record.live(), 1u);
  };
  (twice(&Lumo::allocate<Many<numbers>>, Many<numbers>::lumoAllocTrackTypeInfo_), ...);
}

TEST_F(AllocationTest, CountsManyClasses) {
  countsAll(std::make_integer_sequence<int, 150>());
}

TEST_F(AllocationTest, EachClassHasItsOwnRecord) {
  const U64 things = sample::Thing::lumoAllocTrackTypeInfo_.allocations();
  const auto object = sample::thing();
  EXPECT_EQ(record.allocations(), allocations);
  EXPECT_EQ(sample::Thing::lumoAllocTrackTypeInfo_.allocations(), things + 1);
}

TEST_F(AllocationTest, TwoSnapshotsShowWhatHappenedBetween) {
  const auto before = Lumo::allocTrackSnapshot();
  const auto kept = sample::thing();
  { const auto gone = sample::thing(); }
  const auto change = Lumo::allocTrackDifference(before, Lumo::allocTrackSnapshot());
  ASSERT_EQ(change.size(), 1u);
  EXPECT_EQ(change[0].typeName, "sample::Thing");
  EXPECT_EQ(change[0].allocations, 2u);
  EXPECT_EQ(change[0].deallocations, 1u);
  EXPECT_EQ(change[0].live(), 1u);
  EXPECT_EQ(change[0].bytes, 2 * sizeof(sample::Thing));
}

TEST_F(AllocationTest, WhatOnlyCameOrOnlyWentIsADifference) {
  auto thing = sample::thing();
  const auto whileItLives = Lumo::allocTrackSnapshot();
  thing = nullptr;
  const auto after = Lumo::allocTrackSnapshot();
  const auto gone = Lumo::allocTrackDifference(whileItLives, after);
  ASSERT_EQ(gone.size(), 1U);
  EXPECT_EQ(gone[0].allocations, 0U);
  EXPECT_EQ(gone[0].deallocations, 1U);
  const auto kept = sample::thing();
  const auto come = Lumo::allocTrackDifference(after, Lumo::allocTrackSnapshot());
  ASSERT_EQ(come.size(), 1U);
  EXPECT_EQ(come[0].allocations, 1U);
  EXPECT_EQ(come[0].deallocations, 0U);
}

// Of which nothing but arrays are made.
class OnlyInArrays : public PtrInterface {
  LUMO_OBJECT(OnlyInArrays)
};
constinit const Lumo::LumoType OnlyInArrays::_lumoType("OnlyInArrays");

TEST_F(AllocationTest, AClassThatIsMadeInArraysAloneIsListed) {
  const auto array = std::make_unique<OnlyInArrays[]>(2);
  const auto rows = Lumo::allocTrackSnapshot();
  EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [](const AllocTrackRow& row) {
    return row.typeName.ends_with("OnlyInArrays") && row.live() == 1;
  }));
}

TEST_F(AllocationTest, SnapshotsAreSortedByName) {
  const auto a = sample::thing();
  const auto b = Lumo::allocate<Tracked>();
  std::vector<std::string> names;
  for (const AllocTrackRow& row : Lumo::allocTrackSnapshot()) names.push_back(row.typeName);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_THAT(names, testing::Contains("sample::Thing"));
}

TEST_F(AllocationTest, ASnapshotBesideABusyThreadShowsNoMoreGoneThanCame) {
  std::atomic<int> made{0};
  std::atomic<bool> over{false};
  std::thread busy([&] {
    for (; !over; ++made) sample::thing();
  });
  U64 most = 0;
  while (made < 100'000) {
    for (const AllocTrackRow& row : Lumo::allocTrackSnapshot()) {
      if (row.typeName == "sample::Thing") most = std::max(most, row.live());
    }
  }
  over = true;
  busy.join();
  EXPECT_LT(most, U64{1} << 32);  // what is below zero is 2^64 nearly
}

TEST_F(AllocationTest, ReportsALinePerClass) {
  const auto object = sample::thing();
  const AllocTrackTypeInfo& things = sample::Thing::lumoAllocTrackTypeInfo_;
  std::ostringstream expected;
  expected << things.live() << ' ' << things.allocations() << ' ' << things.deallocations() << ' '
           << things.bytes() << " sample::Thing\n";
  std::ostringstream report;
  Lumo::allocTrackReport(report);
  EXPECT_THAT(report.str(), testing::StartsWith("live allocations deallocations bytes type\n"));
  EXPECT_THAT(report.str(), testing::HasSubstr(expected.str()));
}

// In a process of its own, as the rows stay for ever.
TEST(AllocationDeathTest, ManyClassesMayHaveOneName) {
  const auto haveOneName = [] {
    static std::array<AllocTrackTypeInfo, 5000> records;
    for (AllocTrackTypeInfo& one : records) {
      AllocTrackTypeInfo::trackAllocation(&one, typeid(wchar_t), sizeof(wchar_t));
    }
    const auto rows = Lumo::allocTrackSnapshot();
    return std::count_if(rows.begin(), rows.end(), [](const AllocTrackRow& row) {
      return row.typeName == "wchar_t" && row.allocations == 1;
    });
  };
  EXPECT_EXIT(std::_Exit(haveOneName() == 5000 ? 0 : 1), testing::ExitedWithCode(0), "");
}

}  // namespace
