#include <gtest/gtest.h>

#include <sstream>
#include <type_traits>

#include <Lumo/Exception.h>
#include <Norv/GrpcRequestType.h>

namespace {

using namespace Norv;

static_assert(std::is_same_v<std::underlying_type_t<GrpcRequestType>, unsigned>);
static_assert(std::is_same_v<decltype(valueToStrep(resetAll)), Lumo::String>);
static_assert(std::is_same_v<decltype(stringValue(resetAll)), Lumo::String>);
static_assert(std::is_same_v<decltype(std::declval<std::ostream&>() << resetAll), std::ostream&>);

// The names in the order of their numbers, written out once more so that the table is checked
// against something. Rows that are added behind these need not be here.
constexpr const char* names[] = {"unknown",
                                 "getVersion",
                                 "resetAll",
                                 "killBess",
                                 "importPlugin",
                                 "unloadPlugin",
                                 "listPlugins",
                                 "pauseAll",
                                 "pauseWorker",
                                 "resumeWorker",
                                 "resumeAll",
                                 "resetWorkers",
                                 "listWorkers",
                                 "addWorker",
                                 "destroyWorker",
                                 "resetTcs",
                                 "listTcs",
                                 "checkSchedulingConstraints",
                                 "addTc",
                                 "updateTcParams",
                                 "updateTcParent",
                                 "getTcStats",
                                 "listDrivers",
                                 "getDriverInfo",
                                 "resetPorts",
                                 "listPorts",
                                 "createPort",
                                 "destroyPort",
                                 "setPortConf",
                                 "getPortConf",
                                 "addPortMacAddress",
                                 "removePortMacAddress",
                                 "getPortStats",
                                 "getLinkStatus",
                                 "listMclass",
                                 "getMclassInfo",
                                 "resetModules",
                                 "listModules",
                                 "createModule",
                                 "destroyModule",
                                 "getModuleInfo",
                                 "connectModules",
                                 "disconnectModules",
                                 "dumpMempool",
                                 "moduleCommand",
                                 "configureGateHook"};
static_assert(std::size(names) <= grpcRequestTypes);
static_assert(unknown == 0 && getVersion == 1 && updateTcParent == 20 && listDrivers == 22);
static_assert(getPortConf == 29 && connectModules == 41 && disconnectModules == 42);
static_assert(GrpcRequestType::configureGateHook == 45);

std::string printed(GrpcRequestType type) {
  std::ostringstream out;
  out << type;
  return out.str();
}

TEST(GrpcRequestType, ConvertsEveryValueToItsNameAndBack) {
  for (U32 i = 0; i < grpcRequestTypes; ++i) {
    const GrpcRequestType type = GrpcRequestTypeInstance(i);
    EXPECT_EQ(type, i);
    const Lumo::String name = stringValue(type);
    if (i < std::size(names)) {
      EXPECT_EQ(name, names[i]);
    }
    EXPECT_EQ(valueToStrep(type), name);
    EXPECT_EQ(printed(type), name);
    EXPECT_EQ(GrpcRequestTypeInstance(name), type);
  }
}

TEST(GrpcRequestType, TellsConnectFromDisconnect) {
  EXPECT_EQ(GrpcRequestTypeInstance("connectModules"), 41u);
  EXPECT_EQ(GrpcRequestTypeInstance("disconnectModules"), 42u);
}

TEST(GrpcRequestType, MatchesNamesExactly) {
  for (const char* name : {"ConnectModules", " connectModules", "connectModules ", "", "connect"}) {
    EXPECT_THROW(GrpcRequestTypeInstance(Lumo::String(name)), Lumo::RangeException) << name;
  }
}

TEST(GrpcRequestType, LooksBehindANulInAName) {
  EXPECT_THROW(GrpcRequestTypeInstance(Lumo::String(std::string("getVersion\0", 11))),
               Lumo::RangeException);
  EXPECT_THROW(GrpcRequestTypeInstance(Lumo::String(std::string("\0getVersion", 11))),
               Lumo::RangeException);
}

TEST(GrpcRequestType, RefusesANumberOutsideItself) {
  EXPECT_THROW(GrpcRequestTypeInstance(grpcRequestTypes), Lumo::RangeException);
  EXPECT_THROW(GrpcRequestTypeInstance(0xFFFFFFFFu), Lumo::RangeException);
}

TEST(GrpcRequestType, PrintsANumberOutsideItselfAsTheNumber) {
  EXPECT_EQ(printed(static_cast<GrpcRequestType>(grpcRequestTypes)),
            std::to_string(grpcRequestTypes));
  EXPECT_EQ(stringValue(static_cast<GrpcRequestType>(0xFFFFFFFF)), "4294967295");
}

struct Parsing : testing::Test {
  bool parse(const char* input) {
    text = input;
    begin = text.iteratorConst();
    try {
      sequenceToValue(begin, text.endConst(), &value);
      return true;
    } catch (const Lumo::RangeException&) {
      return false;
    }
  }
  std::string rest() const {
    std::string left;
    for (auto it = begin; it != text.endConst(); ++it) left += *it;
    return left;
  }
  Lumo::String text;
  Lumo::String::IteratorConst begin;
  GrpcRequestType value = unknown;
};

TEST_F(Parsing, TakesAWholeName) {
  EXPECT_TRUE(parse("connectModules"));
  EXPECT_EQ(value, connectModules);
  EXPECT_EQ(rest(), "");
}

TEST_F(Parsing, TakesDisconnectWhole) {
  EXPECT_TRUE(parse("disconnectModules"));
  EXPECT_EQ(value, disconnectModules);
}

TEST_F(Parsing, StopsBehindTheName) {
  EXPECT_TRUE(parse("getVersion rest"));
  EXPECT_EQ(value, getVersion);
  EXPECT_EQ(rest(), " rest");
}

TEST_F(Parsing, LooksNoFurtherThanTheEndItIsGiven) {
  text = "getVersionOfAll";
  begin = text.iteratorConst();
  auto end = begin;
  for (int i = 0; i < 10; ++i) ++end;
  sequenceToValue(begin, end, &value);
  EXPECT_EQ(value, getVersion);
  EXPECT_EQ(rest(), "OfAll");
  auto none = text.iteratorConst();
  EXPECT_THROW(sequenceToValue(none, none, &value), Lumo::RangeException);
}

TEST_F(Parsing, StopsAtANul) {
  text = Lumo::String(std::string("getVersion\0x", 12));
  begin = text.iteratorConst();
  sequenceToValue(begin, text.endConst(), &value);
  EXPECT_EQ(value, getVersion);
  EXPECT_EQ(rest(), std::string("\0x", 2));
}

TEST_F(Parsing, LeavesEverythingWhereItWasOnFailure) {
  value = resetAll;
  for (const char* input : {"nothing", "", " getVersion", "getVersions"}) {
    EXPECT_FALSE(parse(input)) << input;
    EXPECT_EQ(value, resetAll);
    EXPECT_EQ(rest(), input);
  }
}

TEST(GrpcRequestType, IsDescribedByATableInValueOrder) {
  ASSERT_EQ(_lumoType_GrpcRequestType.rows().size(), grpcRequestTypes);
  for (U32 i = 0; i < grpcRequestTypes; ++i) {
    EXPECT_EQ(_lumoType_GrpcRequestType.rows()[i].number, i);
    EXPECT_EQ(_lumoType_GrpcRequestType.rows()[i].name, stringValue(GrpcRequestTypeInstance(i)));
  }
  EXPECT_STREQ(_lumoType_GrpcRequestType.typeName(), "Norv::GrpcRequestType");
}

}  // namespace
