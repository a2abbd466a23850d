#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Abort.h>
#include <support/Mortal.h>

#include <functional>

#include <Norv/GrpcGlobalCmdConfig.h>

namespace {

using namespace Norv;
using testing::ElementsAre;

static_assert(std::is_base_of_v<Lumo::Entity, GrpcGlobalCmdConfig>);

class ConfigWitness : public GrpcGlobalCmdConfig::NotifieeConst {
 public:
  explicit ConfigWitness(const Lumo::Ptr<GrpcGlobalCmdConfig>& config) : NotifieeConst(config) {}
  void onCmdConfigGroup(Lumo::Name name) override {
    names.push_back(name.stringValue().stdString());
    present = notifier()->cmdConfigGroupHas(name);
  }
  void onCmdConfigGroup() override { ++collectionWide; }
  void onCmdConfigGrouplumoImmediate() override { ++collectionWide; }

  std::vector<std::string> names;
  bool present = false;
  int collectionWide = 0;
};

Lumo::Ptr<CmdConfigGroup> queue(const char* name) {
  return CmdConfigGroup::CmdConfigGroupIs(name);
}

struct GrpcGlobalCmdConfigTest : testing::Test {
  std::vector<std::string> walk() const {
    std::vector<std::string> names;
    for (auto it = config->cmdConfigGroupIteratorConst(); it; ++it) {
      names.push_back(it.key().charPtr());
    }
    return names;
  }
  Lumo::Ptr<GrpcGlobalCmdConfig> config = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("all");
  Lumo::Ptr<ConfigWitness> witness = Lumo::allocate<ConfigWitness>(config);
};

TEST_F(GrpcGlobalCmdConfigTest, StartsEmptyUnderItsName) {
  EXPECT_EQ(config->name(), Lumo::Name("all"));
  EXPECT_EQ(config->cmdConfigGroups(), 0u);
  EXPECT_EQ(config->cmdConfigGroup("a"), nullptr);
  EXPECT_STREQ(config->fwkType()->typeName(), "Norv::GrpcGlobalCmdConfig");
  EXPECT_EQ(grpcGlobalCmdConfigFactory("x")->name(), Lumo::Name("x"));
}

TEST_F(GrpcGlobalCmdConfigTest, HoldsQueuesUnderTheirNames) {
  const auto a = queue("a");
  config->cmdConfigGroupIs(a);
  EXPECT_EQ(config->cmdConfigGroup("a"), a);
  EXPECT_TRUE(config->cmdConfigGroupHas("a"));
  EXPECT_FALSE(config->cmdConfigGroupHas("b"));
  EXPECT_THAT(witness->names, ElementsAre("a"));
  EXPECT_TRUE(witness->present);
}

TEST_F(GrpcGlobalCmdConfigTest, TellsOnceOfTheSameObject) {
  const auto a = queue("a");
  config->cmdConfigGroupIs(a);
  config->cmdConfigGroupIs(a);
  EXPECT_THAT(witness->names, ElementsAre("a"));
}

TEST_F(GrpcGlobalCmdConfigTest, ReplacesAQueueOfTheSameName) {
  const auto other = queue("a");
  config->cmdConfigGroupIs(queue("a"));
  config->cmdConfigGroupIs(other);
  EXPECT_EQ(config->cmdConfigGroup("a"), other);
  EXPECT_EQ(config->cmdConfigGroups(), 1u);
  EXPECT_THAT(witness->names, ElementsAre("a", "a"));
}

TEST_F(GrpcGlobalCmdConfigTest, KeptOnPurposeRefusesNullWithAStrayQuote) {
  const U64 version = config->fwkEntityVersion();
  try {
    config->cmdConfigGroupIs(nullptr);
    FAIL() << "null was taken";
  } catch (const Lumo::RangeException& exception) {
    EXPECT_STREQ(exception.what(),
                 "null _cmdConfigGroup parameter to mutator for "
                 "Norv::GrpcGlobalCmdConfig::cmdConfigGroup not allowed\"");
    EXPECT_EQ(std::string(exception.what()).size(), 100u);
  }
  EXPECT_EQ(config->cmdConfigGroups(), 0u);
  EXPECT_EQ(config->fwkEntityVersion(), version);
  EXPECT_THAT(witness->names, ElementsAre());
}

TEST_F(GrpcGlobalCmdConfigTest, RemovesByNameAndByIterator) {
  const auto a = queue("a");
  config->cmdConfigGroupIs(a);
  config->cmdConfigGroupIs(queue("b"));
  witness->names.clear();
  EXPECT_EQ(config->cmdConfigGroupDel("a"), a);
  EXPECT_FALSE(witness->present);
  EXPECT_EQ(config->cmdConfigGroupDel("a"), nullptr);
  auto iterator = config->cmdConfigGroupIterator();
  EXPECT_TRUE(config->cmdConfigGroupDel(iterator));
  EXPECT_THAT(witness->names, ElementsAre("a", "b"));
}

TEST_F(GrpcGlobalCmdConfigTest, RemovesAllOneByOne) {
  for (const char* name : {"a", "b", "c"}) config->cmdConfigGroupIs(queue(name));
  witness->names.clear();
  config->cmdConfigGroupDelAll();
  EXPECT_EQ(config->cmdConfigGroups(), 0u);
  EXPECT_THAT(witness->names, ElementsAre("a", "b", "c"));
  EXPECT_EQ(witness->collectionWide, 0);
}

TEST_F(GrpcGlobalCmdConfigTest, IsWalkedWhileItsCurrentQueueIsRemoved) {
  for (const char* name : {"a", "b", "c"}) config->cmdConfigGroupIs(queue(name));
  EXPECT_THAT(walk(), ElementsAre("a", "b", "c"));
  std::vector<std::string> seen;
  for (auto it = config->cmdConfigGroupIterator(); it; ++it) {
    seen.push_back(it.key().charPtr());
    if (seen.back() == "b") config->cmdConfigGroupDel(it);
  }
  EXPECT_THAT(seen, ElementsAre("a", "b", "c"));
  EXPECT_THAT(walk(), ElementsAre("a", "c"));
}

TEST_F(GrpcGlobalCmdConfigTest, IsWalkedFromAName) {
  for (const char* name : {"a", "b", "c"}) config->cmdConfigGroupIs(queue(name));
  auto it = config->cmdConfigGroupIteratorConst("b");
  ASSERT_TRUE(it);
  EXPECT_EQ(it.ptr(), config->cmdConfigGroup("b"));
  ++it;
  EXPECT_EQ(it.key(), Lumo::Name("c"));
  EXPECT_FALSE(config->cmdConfigGroupIteratorConst("none"));
}

TEST_F(GrpcGlobalCmdConfigTest, StepsTheEntityVersionWithEveryMutator) {
  const auto a = queue("a");
  const auto steps = [&](const std::function<void()>& mutate) {
    const U64 before = config->fwkEntityVersion();
    mutate();
    return config->fwkEntityVersion() - before;
  };
  EXPECT_EQ(steps([&] { config->cmdConfigGroupIs(a); }), 1u);
  EXPECT_EQ(steps([&] { config->cmdConfigGroupIs(a); }), 1u);
  EXPECT_EQ(steps([&] { config->cmdConfigGroupDel("none"); }), 1u);
  EXPECT_EQ(steps([&] { config->cmdConfigGroupDel("a"); }), 1u);
  EXPECT_EQ(steps([&] { config->cmdConfigGroupDelAll(); }), 1u);
}

TEST_F(GrpcGlobalCmdConfigTest, TellsOfItsEndAndNotOfItsQueues) {
  // A reactor that does not hold the configuration, so that the configuration can go.
  class Unheld : public ConfigWitness {
   public:
    Unheld(const Lumo::Ptr<GrpcGlobalCmdConfig>& config, int* gone)
        : ConfigWitness(config), gone_(gone) {
      config->notifieeList()->newMember(this);
      notifier_ = nullptr;
    }
    void onCmdConfigGroup(Lumo::Name) override { ADD_FAILURE(); }
    void onZeroReferences() override { ++*gone_; }

   private:
    int* const gone_;
  };
  int gone = 0;
  auto brief = grpcGlobalCmdConfigFactory("brief");
  brief->cmdConfigGroupIs(queue("a"));
  const auto unheld = Lumo::allocate<Unheld>(brief, &gone);
  EXPECT_EQ(gone, 0);
  brief = nullptr;
  EXPECT_EQ(gone, 1);
}

// A configuration with the queues "a" and "b" that is changed while its reads are preserved. It
// dies with the change made.
void diesWithQueues(const std::string& names,
                    const std::function<void(GrpcGlobalCmdConfig&)>& change) {
  const auto config = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("all");
  config->cmdConfigGroupIs(queue("a"));
  config->cmdConfigGroupIs(queue("b"));
  EXPECT_DEATH(
      {
        Lumo::FwkEntityReadsPreserve scope(config.ptr());
        support::atAbort([&] {
          std::string text = "queues";
          for (auto it = config->cmdConfigGroupIteratorConst(); it; ++it) {
            text += std::string(" ") + it.key().charPtr();
          }
          return text + ".";
        });
        change(*config);
      },
      std::string("anyActive(.|\n)*queues") + names + "\\.")
      << names;
}

TEST(GrpcGlobalCmdConfigDeathTest, AbortsWhenChangedUnderPreservedReads) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  diesWithQueues(" a b c", [](auto& all) { all.cmdConfigGroupIs(queue("c")); });
  diesWithQueues(" b", [](auto& all) { all.cmdConfigGroupDel("a"); });
  diesWithQueues(" b", [](auto& all) {
    auto iterator = all.cmdConfigGroupIterator();
    all.cmdConfigGroupDel(iterator);
  });
  diesWithQueues(" b", [](auto& all) { all.cmdConfigGroupDelAll(); });
  const auto a = queue("a");
  const auto config = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("all");
  config->cmdConfigGroupIs(a);
  Lumo::FwkEntityReadsPreserve scope(config.ptr());
  config->cmdConfigGroupIs(a);
  config->cmdConfigGroupDel("none");
}

TEST_F(GrpcGlobalCmdConfigTest, DeletesNothingByAnIteratorAtItsEnd) {
  config->cmdConfigGroupIs(queue("a"));
  auto iterator = config->cmdConfigGroupIterator();
  ++iterator;
  const U64 version = config->fwkEntityVersion();
  EXPECT_EQ(config->cmdConfigGroupDel(iterator), nullptr);
  EXPECT_EQ(config->fwkEntityVersion(), version + 1);
  EXPECT_TRUE(config->cmdConfigGroupHas("a"));
}

TEST_F(GrpcGlobalCmdConfigTest, DeletesNothingByAnIteratorWhoseQueueWasReplaced) {
  config->cmdConfigGroupIs(queue("a"));
  auto iterator = config->cmdConfigGroupIterator();
  const auto replacement = queue("a");
  config->cmdConfigGroupIs(replacement);
  witness->names.clear();
  EXPECT_EQ(config->cmdConfigGroupDel(iterator), nullptr);
  EXPECT_EQ(config->cmdConfigGroup("a"), replacement);
  EXPECT_THAT(witness->names, ElementsAre());
}

// As the one of CmdConfigGroup's test.
class ConfigDropper : public GrpcGlobalCmdConfig::NotifieeConst {
 public:
  ConfigDropper(Lumo::Ptr<GrpcGlobalCmdConfig>* last, const bool* gone)
      : NotifieeConst(*last), last_(last), gone_(gone) {
    notifier_ = nullptr;
  }
  using NotifieeConst::onCmdConfigGroup;
  void onCmdConfigGroup(Lumo::Name) override {
    ++changes;
    *last_ = nullptr;
    EXPECT_FALSE(*gone_);
  }
  int changes = 0;

 private:
  Lumo::Ptr<GrpcGlobalCmdConfig>* const last_;
  const bool* const gone_;
};

TEST_F(GrpcGlobalCmdConfigTest, LivesUntilItsMutatorIsDoneWhenAHandlerDropsIt) {
  const auto changes = [](const std::function<void(GrpcGlobalCmdConfig&)>& change) {
    bool gone = false;
    Lumo::Ptr<GrpcGlobalCmdConfig> all =
        Lumo::allocate<support::Mortal<GrpcGlobalCmdConfig>>(&gone, "all");
    for (const char* name : {"a", "b", "c"}) all->cmdConfigGroupIs(queue(name));
    const auto dropper = Lumo::allocate<ConfigDropper>(&all, &gone);
    change(*all);
    EXPECT_TRUE(gone);
    return dropper->changes;
  };
  using All = GrpcGlobalCmdConfig;
  EXPECT_EQ(changes([](All& all) { all.cmdConfigGroupIs(queue("d")); }), 1);
  EXPECT_EQ(changes([](All& all) { EXPECT_TRUE(all.cmdConfigGroupDel("a")); }), 1);
  EXPECT_EQ(changes([](All& all) { all.cmdConfigGroupDelAll(); }), 3);
}

TEST_F(GrpcGlobalCmdConfigTest, AReactorOfItHearsNothingAsAZombie) {
  witness->lumoDoZombieReactors(true);
  config->cmdConfigGroupIs(queue("a"));
  EXPECT_THAT(witness->names, ElementsAre());
  witness->lumoDoZombieReactors(false);
  config->cmdConfigGroupIs(queue("b"));
  EXPECT_THAT(witness->names, ElementsAre("b"));
}

TEST_F(GrpcGlobalCmdConfigTest, AReactorOfItRefusesOtherObjects) {
  const Lumo::Ptr<Lumo::PtrInterface const> other = queue("a");
  EXPECT_THROW(witness->notifierIs(other), Lumo::RangeException);
  EXPECT_EQ(witness->notifier(), config);
}

}  // namespace
