#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Lumo/BitSet.h>
#include <Lumo/FwkEntityReadsPreserve.h>
#include <Norv/GrpcErrorHandlingStatus.h>

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

}  // namespace
