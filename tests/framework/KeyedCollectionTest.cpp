#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Lumo/KeyedCollection.h>

#include "Thing.h"

namespace {

using Lumo::Name;
using Lumo::Ptr;
using sample::Thing;
using sample::thing;
using testing::ElementsAre;

struct KeyedCollectionTest : testing::Test {
  Lumo::KeyedCollection<Name, Thing> things{4};

  Ptr<Thing> add(const char* key) {
    auto object = thing(key);
    things.memberIs(key, object);
    return object;
  }
  std::vector<std::string> keys() const {
    std::vector<std::string> found;
    for (auto at = things.iterator(); at; ++at) found.push_back(at.key().charPtr());
    return found;
  }
};

TEST_F(KeyedCollectionTest, StartsEmpty) {
  EXPECT_EQ(things.members(), 0u);
  EXPECT_EQ(things["a"], nullptr);
  EXPECT_FALSE(things.isMemberOf("a"));
  EXPECT_FALSE(things.iterator());
  EXPECT_FALSE(things.iterator("a"));
  EXPECT_EQ(things.memberDel("a"), nullptr);
}

TEST_F(KeyedCollectionTest, FindsByKeyAndWalksInTheOrderOfInsertion) {
  const auto b = add("b");
  const auto a = add("a");
  add("");
  EXPECT_EQ(things["b"], b);
  EXPECT_EQ(things["a"], a);
  EXPECT_TRUE(things.isMemberOf(Name()));
  EXPECT_THAT(keys(), ElementsAre("b", "a", ""));
}

TEST_F(KeyedCollectionTest, ReplacesInPlace) {
  add("a");
  add("b");
  const auto other = add("a");
  EXPECT_EQ(things.members(), 2u);
  EXPECT_EQ(things["a"], other);
  EXPECT_THAT(keys(), ElementsAre("a", "b"));
}

TEST_F(KeyedCollectionTest, GivesBackWhatItRemoves) {
  const auto a = add("a");
  add("b");
  EXPECT_EQ(things.memberDel("a"), a);
  EXPECT_EQ(a->references(), 1u);
  EXPECT_THAT(keys(), ElementsAre("b"));
  add("a");
  EXPECT_THAT(keys(), ElementsAre("b", "a"));
}

TEST_F(KeyedCollectionTest, CanBeWalkedFromAKey) {
  add("a");
  add("b");
  add("c");
  auto at = things.iterator("b");
  ASSERT_TRUE(at);
  EXPECT_EQ(at.key(), "b");
  EXPECT_EQ(at.ptr(), things["b"]);
  ++at;
  EXPECT_EQ(at.key(), "c");
  ++at;
  EXPECT_FALSE(at);
  ++at;
  EXPECT_FALSE(at);
}

TEST_F(KeyedCollectionTest, AWalkSurvivesTheRemovalOfWhatItStandsOn) {
  add("a");
  add("b");
  add("c");
  std::vector<std::string> walked;
  for (auto at = things.iterator(); at; ++at) {
    walked.push_back(at.key().charPtr());
    things.memberDel(at.key());
    EXPECT_EQ(at.ptr()->name(), at.key());
  }
  EXPECT_THAT(walked, ElementsAre("a", "b", "c"));
  EXPECT_EQ(things.members(), 0u);
}

TEST_F(KeyedCollectionTest, AWalkSkipsWhatWentAndMeetsWhatCame) {
  add("a");
  add("b");
  add("c");
  auto at = things.iterator();
  things.memberDel("b");
  add("d");
  ++at;
  EXPECT_EQ(at.key(), "c");
  things.memberDel("c");
  things.memberDel("d");
  add("e");
  ++at;
  EXPECT_EQ(at.key(), "e");
}

TEST(KeyedCollectionDeathTest, HasNoKeyAtItsEnd) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Lumo::KeyedCollection<int, sample::Thing> things;
  things.memberIs(1, sample::thing());
  auto iterator = things.iterator();
  ++iterator;
  EXPECT_DEATH(iterator.key(), "the walk is not at its end");
}

}  // namespace
