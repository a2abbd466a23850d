#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <unordered_set>

#include "Thing.h"

namespace {

using Lumo::Entity;
using Lumo::FwkEntityReadsPreserve;
using Lumo::Name;
using Lumo::String;
using sample::Thing;
using sample::thing;

// An entity that overrides nothing.
class Blank : public Entity {};

// What an entity takes that has nothing but a list of followers, beyond its table of functions.
static_assert(sizeof(Entity) + sizeof(Lumo::TypedNotifieeList<Thing::NotifieeConst>) -
                  sizeof(void*) <=
              64);

TEST(Entity, StepsItsVersionAtEveryMutatorCall) {
  const auto object = thing();
  const U64 version = object->fwkEntityVersion();
  object->valueIs(5);
  EXPECT_EQ(object->fwkEntityVersion(), version + 1);
  object->valueIs(5);
  EXPECT_EQ(object->fwkEntityVersion(), version + 2);
}

TEST(Entity, HasNoNameOfItsOwn) {
  const auto blank = Lumo::allocate<Blank>();
  EXPECT_EQ(blank->name(), Name());
  EXPECT_STREQ(blank->fwkType()->typeName(), "Lumo::Entity");
}

TEST(Entity, OffersTheHooksOfBackupAndRestore) {
  const auto blank = Lumo::allocate<Blank>();
  blank->nameIsFromBackup("old");
  EXPECT_EQ(blank->name(), Name());
  blank->reconstruct();
  blank->saveConstructParams();
  blank->entBackupDel();
  blank->lumoNboAttrLogSaIs();
  EXPECT_FALSE(blank->lumoHasAttrLogInterface());
  EXPECT_EQ(blank->fwkEntityVersion(), 0u);
  const auto named = thing("new");
  named->nameIsFromBackup("old");
  EXPECT_EQ(named->name(), "old");
}

TEST(FwkEntityReadsPreserve, HoldsForItsEntityAndItsScope) {
  const auto a = thing();
  const auto b = thing();
  EXPECT_FALSE(FwkEntityReadsPreserve::anyActive(a.ptr()));
  {
    const FwkEntityReadsPreserve scope(a.ptr());
    EXPECT_TRUE(FwkEntityReadsPreserve::anyActive(a.ptr()));
    EXPECT_FALSE(FwkEntityReadsPreserve::anyActive(b.ptr()));
    {
      const FwkEntityReadsPreserve inner(b.ptr());
      EXPECT_TRUE(FwkEntityReadsPreserve::anyActive(a.ptr()));
      EXPECT_TRUE(FwkEntityReadsPreserve::anyActive(b.ptr()));
    }
    EXPECT_FALSE(FwkEntityReadsPreserve::anyActive(b.ptr()));
  }
  EXPECT_FALSE(FwkEntityReadsPreserve::anyActive(a.ptr()));
}

TEST(FwkEntityReadsPreserve, MayHoldForAllEntities) {
  const auto a = thing();
  const FwkEntityReadsPreserve scope;
  EXPECT_TRUE(FwkEntityReadsPreserve::anyActive(a.ptr()));
}

TEST(FwkEntityReadsPreserve, IsOfOneThread) {
  const auto a = thing();
  const FwkEntityReadsPreserve scope(a.ptr());
  bool active = true;
  std::thread([&] {
    active = FwkEntityReadsPreserve::anyActive(a.ptr());
    a->valueIs(7);
  }).join();
  EXPECT_FALSE(active);
  EXPECT_EQ(a->value(), 7);
}

TEST(FwkEntityReadsPreserve, LetsACallWithoutAChangeAndOtherEntitiesBe) {
  const auto a = thing();
  const auto b = thing();
  const FwkEntityReadsPreserve scope(a.ptr());
  a->valueIs(a->value());
  b->valueIs(3);
  EXPECT_EQ(b->value(), 3);
}

TEST(FwkEntityReadsPreserveDeathTest, RefusesAChange) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto a = thing();
  EXPECT_DEATH(
      {
        const FwkEntityReadsPreserve scope(a.ptr());
        a->valueIs(1);
      },
      testing::HasSubstr("!Lumo::FwkEntityReadsPreserve::anyActive( this )"));
  EXPECT_DEATH(
      {
        const FwkEntityReadsPreserve scope;
        a->valueIs(1);
      },
      testing::HasSubstr("anyActive( this )"));
}

TEST(String, HoldsText) {
  const String text("daemon");
  EXPECT_STREQ(text.charPtr(), "daemon");
  EXPECT_EQ(text.stdString(), "daemon");
  EXPECT_EQ(text.length(), 6u);
  EXPECT_FALSE(text.empty());
  EXPECT_EQ(String(std::string("dae")) + "mon", text);
}

TEST(String, MayBeEmpty) {
  for (const String& empty :
       {String(), String(""), String(static_cast<const char*>(nullptr)), String(std::string())}) {
    EXPECT_TRUE(empty.empty());
    EXPECT_STREQ(empty.charPtr(), "");
    EXPECT_EQ(empty, String());
    EXPECT_EQ(empty.hash(), String().hash());
  }
}

TEST(String, ComparesAsText) {
  const String a("alpha");
  const String b("beta");
  EXPECT_TRUE(a == String("alpha") && a != b && a < b);
  EXPECT_FALSE(b < a || a < a || a == b);
  EXPECT_EQ(a.hash(), String("alpha").hash());
  EXPECT_TRUE(String() < a);
}

TEST(String, SharesItsCharacters) {
  const String text("shared");
  String copy;
  copy = text;
  EXPECT_EQ(copy.charPtr(), text.charPtr());
}

TEST(String, KeepsZeroBytes) {
  const String text(std::string("a\0b", 3));
  EXPECT_EQ(text.length(), 3u);
  EXPECT_EQ(text.stdString(), std::string("a\0b", 3));
  EXPECT_NE(text, "a");
}

TEST(String, CanBeWalked) {
  const String text("abc");
  std::string walked;
  for (auto at = text.iteratorConst(); at != text.endConst(); ++at) walked += *at;
  EXPECT_EQ(walked, "abc");
  auto at = text.iteratorConst();
  for (int i = 0; i < 3; ++i, ++at) EXPECT_TRUE(at);
  EXPECT_FALSE(at);
  EXPECT_FALSE(String().iteratorConst());
}

TEST(Name, IsMadeFromText) {
  EXPECT_EQ(Name("x"), Name(String("x")));
  EXPECT_EQ(Name("x"), Name(std::string("x")));
  EXPECT_EQ(Name(""), Name());
  EXPECT_TRUE(Name().empty());
  EXPECT_EQ(Name("x").stringValue(), "x");
  EXPECT_TRUE(Name("a") < Name("b") && Name("a") != Name("b"));
}

TEST(Name, CanBeAKey) {
  const std::unordered_set<Name> names{"a", "b", "a"};
  EXPECT_EQ(names.size(), 2u);
  EXPECT_TRUE(names.contains("b"));
}

TEST(Name, PrintsItsText) {
  std::ostringstream out;
  out << Name("ports") << ' ' << String("text");
  EXPECT_EQ(out.str(), "ports text");
}

}  // namespace
