#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Environment.h>

#include <Lumo/BitSet.h>
#include <Lumo/FwkEntityReadsPreserve.h>
#include <Norv/ConnectionsMgr.h>

#ifndef NDEBUG
#error "this test is about builds that switch <cassert> off"
#endif

namespace {

using testing::HasSubstr;

struct ReleaseAssertionsDeathTest : testing::Test {
  ReleaseAssertionsDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(ReleaseAssertionsDeathTest, HeadersAssert) {
  Lumo::BitSet<31, unsigned int> bits;
  EXPECT_DEATH(bits.set(31), HasSubstr("Assertion `pos >= 0 && pos < bits' failed"));
}

TEST_F(ReleaseAssertionsDeathTest, TheLibraryAsserts) {
  const auto status = Norv::grpcErrorHandlingStatusFactory();
  EXPECT_DEATH(
      {
        const Lumo::FwkEntityReadsPreserve scope(status.ptr());
        status->errorOccuredIs(true);
      },
      HasSubstr("Assertion `!Lumo::FwkEntityReadsPreserve::anyActive( this )' failed"));
}

// Made in simulation, the manager has nothing to destroy; without it, destroying asks for the
// thread.
TEST_F(ReleaseAssertionsDeathTest, TheManagerAsserts) {
  EXPECT_DEATH(
      {
        std::optional<support::Environment> simulation(std::in_place, "SIMULATION_NORV", "1");
        const auto manager = Norv::connectionsMgrFactory(
            Norv::connectionConfigFactory(1, "127.0.0.1"),
            Norv::grpcGlobalCmdConfigFactory("config"), Norv::cmdGroupFactory(),
            Norv::grpcErrorHandlingStatusFactory());
        unsetenv("SIMULATION_NORV");
        manager->destroyGrpcClient();
      },
      HasSubstr("Assertion `grpcReplyThread()' failed"));
}

}  // namespace
