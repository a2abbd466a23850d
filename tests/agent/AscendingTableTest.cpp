#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <Lumo/Types.h>
#include <Norv/Agent/AscendingTable.h>

namespace {

using Norv::Agent::AscendingTable;

// Counts how many of it there are, the free places of the table's blocks included.
struct Counted {
  Counted() { ++there; }
  Counted(const Counted& other) : value(other.value) { ++there; }
  Counted& operator=(const Counted&) = default;
  ~Counted() { --there; }
  int value = 0;
  static inline int there = 0;
};

TEST(AscendingTable, FindsWhatWasMadeUntilItIsErased) {
  AscendingTable<U64, std::string> table;
  EXPECT_EQ(table.find(1), nullptr);
  for (U64 key = 1; key <= 200; ++key) table.make(key) = std::to_string(key);
  const std::string* const there = table.find(130);
  table.erase(65);
  table.erase(129);
  EXPECT_EQ(table.find(65), nullptr);
  EXPECT_EQ(table.find(129), nullptr);
  EXPECT_EQ(table.find(201), nullptr);
  EXPECT_EQ(table.find(130), there) << "a value stays where it is";
  EXPECT_EQ(*there, "130");
  EXPECT_EQ(table.make(65), "") << "made anew, nothing of the former is left";
}

TEST(AscendingTable, VisitsEachOnce) {
  AscendingTable<U64, U64> table;
  U64 sum = 0;
  for (U64 key = 1; key <= 1000; ++key) {
    table.make(key) = 2 * key;
    if (key % 3 == 0)
      table.erase(key);
    else
      sum += 2 * key;
  }
  U64 visited = 0;
  table.visit([&](U64 key, U64 value) {
    EXPECT_EQ(value, 2 * key);
    visited += value;
  });
  EXPECT_EQ(visited, sum);
}

TEST(AscendingTable, GivesBackWhatIsPassed) {
  AscendingTable<U64, Counted> table;
  table.make(5).value = 5;  // stays
  for (U64 key = 6; key < 100000; ++key) table.make(key);
  EXPECT_GT(Counted::there, 99000);
  for (U64 key = 6; key < 100000; ++key) table.erase(key);
  EXPECT_LE(Counted::there, 2 * 64) << "the block of the one that stays, and the newest";
  for (U64 key = 100000; key < 200000; ++key) {
    table.make(key);
    table.erase(key);
    ASSERT_LE(Counted::there, 2 * 64) << key;
  }
  EXPECT_EQ(table.find(5)->value, 5);
}

TEST(AscendingTable, KeysMayBeginAgain) {
  AscendingTable<U32, U32> table;
  for (U32 key = ~0u - 100; key != 100; ++key) table.make(key) = key;
  for (U32 key = ~0u - 100; key != 100; ++key) {
    ASSERT_TRUE(table.find(key));
    EXPECT_EQ(*table.find(key), key);
    table.erase(key);
    EXPECT_EQ(table.find(key), nullptr);
  }
}

}  // namespace
