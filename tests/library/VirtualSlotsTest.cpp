#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include <Norv/ConnectionsMgr.h>

// Where overloads of one name stand in the virtual table, which a list of names cannot tell.
namespace {

using Norv::CmdConfigGroup;
using Norv::GrpcCmd;
using Norv::GrpcGlobalCmdConfig;

// The slot of a virtual member function, counted from 0: the C++ ABI of the platform keeps one more
// than its offset in the pointer to the member.
template <class F>
std::size_t slot(F function) {
  std::uintptr_t word = 0;
  std::memcpy(&word, &function, sizeof(word));
  EXPECT_EQ(word % sizeof(void*), 1u) << "not a virtual function";
  return (word - 1) / sizeof(void*);
}

TEST(VirtualSlots, TheResponseFollowsTheBase) {
  EXPECT_EQ(slot(&GrpcCmd::fwkType), 5u);
  EXPECT_EQ(slot(&GrpcCmd::processResponse), 8u);  // the destructor takes 6 and 7
}

TEST(VirtualSlots, TheHandlerWithTheKeyComesFirst) {
  using Config = GrpcGlobalCmdConfig::NotifieeConst;
  EXPECT_EQ(slot(static_cast<void (Config::*)(Lumo::Name)>(&Config::onCmdConfigGroup)), 16u);
  EXPECT_EQ(slot(&Config::onCmdConfigGrouplumoImmediate), 17u);
  EXPECT_EQ(slot(static_cast<void (Config::*)()>(&Config::onCmdConfigGroup)), 18u);
  EXPECT_EQ(slot(&Config::lumoDoZombieReactors), 19u);
}

TEST(VirtualSlots, TheHandlerWithTheIndexComesFirst) {
  using Group = CmdConfigGroup::NotifieeConst;
  EXPECT_EQ(slot(static_cast<void (Group::*)(U32)>(&Group::onCmdBatch)), 16u);
  EXPECT_EQ(slot(&Group::onCmdBatchlumoImmediate), 17u);
  EXPECT_EQ(slot(static_cast<void (Group::*)()>(&Group::onCmdBatch)), 18u);
  EXPECT_EQ(slot(&Group::lumoDoZombieReactors), 22u);
}

}  // namespace
