#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Abort.h>
#include <support/Mortal.h>

#include <Lumo/Exception.h>
#include <Norv/ConnectionConfig.h>
#include <Norv/GrpcErrorHandlingStatus.h>

namespace {

using namespace Norv;

template <class T>
concept HasMutators = requires(T config) {
  config.portNumIs(1);
}
|| requires(T config) {
  config.hostIs("x");
};
static_assert(!HasMutators<ConnectionConfig>);
static_assert(!std::is_base_of_v<Lumo::Entity, ConnectionConfig>);
static_assert(std::is_same_v<decltype(ConnectionConfig::ConnectionConfigIs(U16(1), "h")),
                             Lumo::ValidPtr<ConnectionConfig>>);
static_assert(sizeof(std::atomic<bool>) ==
              1);  // that the flag is one is for a check of the sources

TEST(ConnectionConfig, KeepsExactlyWhatItIsGiven) {
  for (const char* host : {"", "localhost", "%s %n", "::1", "a b"}) {
    for (const U16 port : {U16(0), U16(10514), U16(65535)}) {
      const auto config = connectionConfigFactory(port, host);
      EXPECT_EQ(config->host(), host);
      EXPECT_EQ(config->portNum(), port);
      EXPECT_STREQ(config->fwkType()->typeName(), "Norv::ConnectionConfig");
    }
  }
}

class StatusWitness : public GrpcErrorHandlingStatus::NotifieeConst {
 public:
  explicit StatusWitness(const Lumo::Ptr<GrpcErrorHandlingStatus>& status)
      : NotifieeConst(status) {}
  void onErrorOccured() override { seen.push_back(notifier()->errorOccured()); }
  std::vector<bool> seen;
};

TEST(GrpcErrorHandlingStatus, TellsOfEveryChangeAndNothingElse) {
  const auto status = GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  const auto witness = Lumo::allocate<StatusWitness>(status);
  EXPECT_FALSE(status->errorOccured());
  status->errorOccuredIs(false);
  EXPECT_THAT(witness->seen, testing::ElementsAre());
  status->errorOccuredIs(true);
  status->errorOccuredIs(true);
  status->errorOccuredIs(false);
  EXPECT_THAT(witness->seen, testing::ElementsAre(true, false));
  EXPECT_EQ(status->fwkEntityVersion(), 4u);
}

TEST(GrpcErrorHandlingStatus, HasNoName) {
  const auto status = grpcErrorHandlingStatusFactory();
  EXPECT_TRUE(status->name().empty());
  status->nameIsFromBackup("x");
  EXPECT_TRUE(status->name().empty());
  EXPECT_STREQ(status->fwkType()->typeName(), "Norv::GrpcErrorHandlingStatus");
}

TEST(GrpcErrorHandlingStatus, TellsOfItsEndOnce) {
  // A reactor that does not hold the status, so that the status can go.
  class Unheld : public StatusWitness {
   public:
    Unheld(const Lumo::Ptr<GrpcErrorHandlingStatus>& status, int* gone)
        : StatusWitness(status), gone_(gone) {
      status->notifieeList()->newMember(this);
      notifier_ = nullptr;
    }
    void onErrorOccured() override { ADD_FAILURE(); }
    void onZeroReferences() override { ++*gone_; }

   private:
    int* const gone_;
  };
  int gone = 0;
  auto status = grpcErrorHandlingStatusFactory();
  const auto unheld = Lumo::allocate<Unheld>(status, &gone);
  EXPECT_EQ(gone, 0);
  status = nullptr;
  EXPECT_EQ(gone, 1);
}

TEST(GrpcErrorHandlingStatusDeathTest, AbortsWhenChangedUnderPreservedReads) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto status = grpcErrorHandlingStatusFactory();
  EXPECT_DEATH(
      {
        Lumo::FwkEntityReadsPreserve scope(status.ptr());
        status->errorOccuredIs(true);
      },
      support::readsPreserved);
  Lumo::FwkEntityReadsPreserve scope(status.ptr());
  status->errorOccuredIs(false);
}

TEST(GrpcErrorHandlingStatusDeathTest, HasStoredTheValueAndToldNobodyWhenItAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto status = grpcErrorHandlingStatusFactory();
  const auto witness = Lumo::allocate<StatusWitness>(status);
  EXPECT_DEATH(
      {
        Lumo::FwkEntityReadsPreserve scope(status.ptr());
        support::atAbort([&] {
          return "value " + std::to_string(status->errorOccured()) + " version " +
                 std::to_string(status->fwkEntityVersion()) + " told " +
                 std::to_string(witness->seen.size());
        });
        status->errorOccuredIs(true);
      },
      "anyActive(.|\n)*value 1 version 1 told 0");
}

TEST(GrpcErrorHandlingStatus, LivesUntilItsMutatorIsDoneWhenAHandlerDropsIt) {
  struct Dropper : GrpcErrorHandlingStatus::NotifieeConst {
    Dropper(Lumo::Ptr<GrpcErrorHandlingStatus>* last, const bool* gone)
        : NotifieeConst(*last), last_(last), gone_(gone) {
      notifier_ = nullptr;  // followed, and not held
    }
    void onErrorOccured() override {
      *last_ = nullptr;
      EXPECT_FALSE(*gone_);
    }
    Lumo::Ptr<GrpcErrorHandlingStatus>* const last_;
    const bool* const gone_;
  };
  bool gone = false;
  Lumo::Ptr<GrpcErrorHandlingStatus> status =
      Lumo::allocate<support::Mortal<GrpcErrorHandlingStatus>>(&gone);
  const auto dropper = Lumo::allocate<Dropper>(&status, &gone);
  status->errorOccuredIs(true);
  EXPECT_EQ(status, nullptr);
  EXPECT_TRUE(gone);
}

TEST(GrpcErrorHandlingStatus, AReactorOfItHearsNothingAsAZombie) {
  const auto status = grpcErrorHandlingStatusFactory();
  const auto witness = Lumo::allocate<StatusWitness>(status);
  witness->lumoDoZombieReactors(true);
  EXPECT_TRUE(witness->lumoMarkedForDeletion());
  EXPECT_FALSE(witness->isRegisteredNotifiee());
  status->errorOccuredIs(true);
  EXPECT_THAT(witness->seen, testing::ElementsAre());
  witness->lumoDoZombieReactors(false);
  status->errorOccuredIs(false);
  EXPECT_THAT(witness->seen, testing::ElementsAre(false));
}

TEST(GrpcErrorHandlingStatus, AReactorOfItRefusesOtherObjects) {
  const auto status = grpcErrorHandlingStatusFactory();
  const auto witness = Lumo::allocate<StatusWitness>(status);
  const Lumo::Ptr<Lumo::PtrInterface const> other = connectionConfigFactory(1, "h");
  EXPECT_THROW(witness->notifierIs(other), Lumo::RangeException);
  EXPECT_EQ(witness->notifier(), status);
}

}  // namespace
