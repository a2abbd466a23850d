#include <gmock/gmock.h>
#include <google/protobuf/empty.pb.h>
#include <gtest/gtest.h>
#include <support/Agent.h>
#include <support/Environment.h>
#include <support/FakeDaemon.h>

#include <map>

#include <Lumo/GenericIf.h>
#include <Norv/ConnectionsMgr.h>

// The library through the generic interface alone, as an agent that knows its types by name.
namespace {

using namespace Norv;
using Lumo::genericAttribute;
using Lumo::genericAttributeIs;
using Lumo::genericCall;
using Lumo::genericIf;
using Lumo::genericNew;
using Lumo::GenericTraits;
using Lumo::GenericValue;
using Lumo::LumoType;
using Lumo::OpNotSupportedException;
using Lumo::Ptr;
using Lumo::RangeException;
using testing::ElementsAre;
using testing::Pair;

using Ids = std::map<int, std::string>;

Ids idsOf(const char* typeName) {
  Ids ids;
  for (const Lumo::LumoAttr& attr : Lumo::typeNode(typeName)->attributes()) {
    ids[attr.attributeId()] = attr.name();
  }
  return ids;
}

template <class T>
Ptr<T> made(const GenericValue& value) {
  return GenericTraits<Ptr<T>>::unwrap(value);
}

template <class T>
GenericValue op(const Ptr<T>& object, const char* attribute, int opId,
                const std::vector<GenericValue>& args = {}) {
  return genericIf(object).op(*object->fwkType()->attr(attribute), opId, args);
}

struct GenericAccessTest : testing::Test {
  support::Environment simulation{"SIMULATION_NORV", "1"};
  Ptr<ConnectionConfig> host = connectionConfigFactory(10514, "localhost");
  Ptr<GrpcGlobalCmdConfig> config = grpcGlobalCmdConfigFactory("config");
  Ptr<CmdGroup> pending = cmdGroupFactory();
  Ptr<GrpcErrorHandlingStatus> status = grpcErrorHandlingStatusFactory();
  Ptr<CmdConfigGroup> group = cmdConfigGroupFactory("ports");
  Ptr<GrpcCmd> cmd = grpcCmdFactory(new google::protobuf::Empty, getVersion);

  Ptr<ConnectionsMgr> manager() { return connectionsMgrFactory(host, config, pending, status); }
};

TEST_F(GenericAccessTest, FindsTheNineTypesByName) {
  EXPECT_EQ(Lumo::typeNodes().size(), 9u);
  EXPECT_EQ(Lumo::typeNode("Norv::GrpcCmd"), &GrpcCmd::_lumoType);
  EXPECT_EQ(Lumo::typeNode("Norv::GrpcRequestType"), &_lumoType_GrpcRequestType);
  EXPECT_EQ(Lumo::typeNode("Norv::GrpcClient"), nullptr);
  EXPECT_EQ(Lumo::typeNode("Norv::CmdConfigGroup::LumoCmdBatch"), nullptr);
  EXPECT_EQ(Lumo::typeNode("Lumo::Entity"), nullptr);
}

TEST_F(GenericAccessTest, NumbersTheAttributes) {
  EXPECT_THAT(idsOf("Norv::ConnectionConfig"),
              ElementsAre(Pair(130, "portNum"), Pair(131, "host")));
  EXPECT_THAT(idsOf("Norv::GrpcCmd"), ElementsAre(Pair(130, "request"), Pair(131, "requestType"),
                                                  Pair(133, "freeRequestMemory")));
  EXPECT_THAT(idsOf("Norv::CmdGroup"),
              ElementsAre(Pair(130, "cmdBatch"), Pair(131, "limit"), Pair(132, "pendingCount")));
  EXPECT_THAT(idsOf("Norv::CmdConfigGroup"),
              ElementsAre(Pair(257, "name"), Pair(259, "cmdBatch"), Pair(260, "enqueueVersion"),
                          Pair(261, "ignoreConfigQueueLimit")));
  EXPECT_THAT(idsOf("Norv::GrpcGlobalCmdConfig"),
              ElementsAre(Pair(257, "name"), Pair(258, "cmdConfigGroup")));
  EXPECT_THAT(idsOf("Norv::GrpcErrorHandlingStatus"),
              ElementsAre(Pair(257, "name"), Pair(258, "errorOccured")));
  EXPECT_THAT(idsOf("Norv::CmdConfigGroupSm"),
              ElementsAre(Pair(130, "clock"), Pair(131, "configGroup"), Pair(132, "name"),
                          Pair(133, "handleBatch"), Pair(134, "connectionsMgr")));
  EXPECT_THAT(idsOf("Norv::ConnectionsMgr"),
              ElementsAre(Pair(130, "hostConfig"), Pair(131, "globalCmdConfig"),
                          Pair(132, "pendingQueue"), Pair(133, "grpcErrorHandlingStatus"),
                          Pair(134, "client"), Pair(135, "grpcReplyThread"),
                          Pair(136, "threadLock"), Pair(137, "threadCondition"),
                          Pair(138, "cmdConfigGroupSm"), Pair(139, "initialized"),
                          Pair(140, "handleInitialized"), Pair(141, "destroyGrpcClient"),
                          Pair(142, "doFlushPendingQueue"), Pair(143, "doEnqueueBatch"),
                          Pair(144, "doEnqueueBatchHelper"), Pair(145, "handleCmdConfigGroup")));
}

TEST_F(GenericAccessTest, NamesTheTypesOfTheAttributes) {
  const auto typeOf = [](const LumoType& type, const char* attribute) {
    return std::string(type.attr(attribute)->typeName());
  };
  EXPECT_EQ(typeOf(ConnectionConfig::_lumoType, "portNum"), "U16");
  EXPECT_EQ(typeOf(ConnectionConfig::_lumoType, "host"), "Lumo::String");
  EXPECT_EQ(typeOf(GrpcCmd::_lumoType, "request"), "google::protobuf::Message");
  EXPECT_EQ(typeOf(GrpcCmd::_lumoType, "requestType"), "Norv::GrpcRequestType");
}

TEST_F(GenericAccessTest, ReadsTheConnectionConfig) {
  EXPECT_EQ(genericAttribute(host, "portNum").number(), 10514u);
  EXPECT_EQ(genericAttribute(host, "host").text(), "localhost");
  EXPECT_THROW(genericAttributeIs(host, "portNum", U16(1)), OpNotSupportedException);
  EXPECT_THROW(genericAttributeIs(host, "host", "a"), OpNotSupportedException);
  EXPECT_THROW(genericCall(host, "portNum"), OpNotSupportedException);
  EXPECT_THROW(genericAttribute(host, "port"), OpNotSupportedException);
}

TEST_F(GenericAccessTest, MakesAConnectionConfigAsTheFactoryDoes) {
  const auto config2 =
      made<ConnectionConfig>(genericNew("Norv::ConnectionConfig", U16(10514), "localhost"));
  EXPECT_EQ(config2->portNum(), host->portNum());
  EXPECT_EQ(config2->host(), host->host());
  EXPECT_EQ(config2->fwkType(), host->fwkType());
  EXPECT_EQ(config2->references(), 1u);
  EXPECT_TRUE(config2->hasNotificationActive());
}

TEST_F(GenericAccessTest, MakesAllEightKindsOfObjectByName) {
  EXPECT_EQ(made<CmdConfigGroup>(genericNew("Norv::CmdConfigGroup", "a"))->name(), "a");
  EXPECT_EQ(made<GrpcGlobalCmdConfig>(genericNew("Norv::GrpcGlobalCmdConfig", "b"))->name(), "b");
  EXPECT_EQ(made<CmdGroup>(genericNew("Norv::CmdGroup"))->limit(), 4096);
  const auto freshStatus =
      made<GrpcErrorHandlingStatus>(genericNew("Norv::GrpcErrorHandlingStatus"));
  ASSERT_TRUE(freshStatus);
  EXPECT_FALSE(freshStatus->errorOccured());
  EXPECT_EQ(made<ConnectionConfig>(genericNew("Norv::ConnectionConfig", 1, "h"))->portNum(), 1);
  auto* const message = new google::protobuf::Empty;
  const auto command =
      made<GrpcCmd>(genericNew("Norv::GrpcCmd", genericMessage(message), "getVersion"));
  EXPECT_EQ(command->request(), message);
  EXPECT_EQ(command->requestType(), getVersion);
  const auto mgr =
      made<ConnectionsMgr>(genericNew("Norv::ConnectionsMgr", host, config, pending, status));
  EXPECT_EQ(mgr->globalCmdConfig(), config);
  EXPECT_TRUE(mgr->initialized());
  const auto sm = made<CmdConfigGroupSm>(genericNew("Norv::CmdConfigGroupSm", group, mgr));
  EXPECT_EQ(sm->configGroup(), group);
  EXPECT_EQ(sm->connectionsMgr(), mgr.ptr());
}

// An enumeration of somebody else, with values that a request type has as well.
constexpr Lumo::EnumRow colourRows[] = {{"red", 0}, {"green", 1}};
constexpr Lumo::EnumLumoType colours("sample::Colour", colourRows);

TEST_F(GenericAccessTest, MakesNothingOfWrongArguments) {
  const auto before = Lumo::allocTrackSnapshot();
  EXPECT_THROW(genericNew("Norv::ConnectionConfig"), RangeException);
  EXPECT_THROW(genericNew("Norv::ConnectionConfig", U16(1)), RangeException);
  EXPECT_THROW(genericNew("Norv::ConnectionConfig", U16(1), "h", 2), RangeException);
  EXPECT_THROW(genericNew("Norv::ConnectionConfig", "h", U16(1)), RangeException);
  EXPECT_THROW(genericNew("Norv::ConnectionConfig", 65536, "h"), RangeException);
  EXPECT_THROW(genericNew("Norv::CmdConfigGroup", 3), RangeException);
  EXPECT_THROW(genericNew("Norv::CmdGroup", 3), RangeException);
  EXPECT_THROW(genericNew("Norv::GrpcCmd", nullptr, "fetchVersion"), RangeException);
  EXPECT_THROW(genericNew("Norv::GrpcCmd", nullptr, grpcRequestTypes), RangeException);
  EXPECT_THROW(genericNew("Norv::GrpcCmd", "text", 1), RangeException);
  EXPECT_THROW(genericNew("Norv::GrpcCmd", nullptr, -1), RangeException);
  EXPECT_THROW(genericNew("Norv::GrpcCmd", nullptr, true), RangeException);
  EXPECT_THROW(genericNew("Norv::GrpcCmd", nullptr, GenericValue::Enum{&colours, 1}),
               RangeException);
  EXPECT_THROW(genericNew("Norv::ConnectionConfig", GenericValue::Enum{&colours, 70000}, "h"),
               RangeException);
  EXPECT_THROW(genericNew("Norv::ConnectionsMgr", host, pending, config, status), RangeException);
  EXPECT_THROW(genericNew("Norv::CmdConfigGroupSm", group, group), RangeException);
  EXPECT_THROW(genericNew("Norv::GrpcRequestType", "getVersion"), OpNotSupportedException);
  EXPECT_THROW(genericNew("Norv::Nothing"), RangeException);
  EXPECT_TRUE(Lumo::allocTrackDifference(before, Lumo::allocTrackSnapshot()).empty());
}

TEST_F(GenericAccessTest, ReadsACommandAndFreesItsRequest) {
  EXPECT_EQ(genericAttribute(cmd, "requestType").strep(), "getVersion");
  EXPECT_STREQ(cmd->fwkType()->attr("request")->typeName(), "google::protobuf::Message");
  EXPECT_THROW(genericAttribute(cmd, "request"), OpNotSupportedException);
  EXPECT_THROW(genericAttributeIs(cmd, "requestType", "getVersion"), OpNotSupportedException);
  EXPECT_TRUE(genericCall(cmd, "freeRequestMemory").isVoid());
  EXPECT_EQ(cmd->request(), nullptr);
  genericCall(cmd, "freeRequestMemory");
}

TEST_F(GenericAccessTest, WritesWithNotification) {
  struct Reactor : CmdConfigGroup::NotifieeConst {
    explicit Reactor(const Ptr<CmdConfigGroup const>& notifier) : NotifieeConst(notifier) {}
    void onEnqueueVersion() override { ++versions; }
    void onIgnoreConfigQueueLimit() override { ++limits; }
    int versions = 0;
    int limits = 0;
  };
  const auto reactor = Lumo::allocate<Reactor>(group);
  const U64 version = group->fwkEntityVersion();
  genericAttributeIs(group, "enqueueVersion", U64(1) << 40);
  genericAttributeIs(group, "enqueueVersion", U64(1) << 40);
  genericAttributeIs(group, "ignoreConfigQueueLimit", true);
  EXPECT_EQ(group->enqueueVersion(), U64(1) << 40);
  EXPECT_EQ(genericAttribute(group, "enqueueVersion").number(), U64(1) << 40);
  EXPECT_TRUE(group->ignoreConfigQueueLimit());
  EXPECT_EQ(group->fwkEntityVersion(), version + 3);
  EXPECT_EQ(reactor->versions, 1);
  EXPECT_EQ(reactor->limits, 1);
  EXPECT_THROW(genericAttributeIs(group, "ignoreConfigQueueLimit", 1), RangeException);
  EXPECT_THROW(genericAttributeIs(group, "name", "other"), OpNotSupportedException);
}

TEST_F(GenericAccessTest, WritesThePendingQueuesNumbers) {
  genericAttributeIs(pending, "limit", 7);
  genericAttributeIs(pending, "pendingCount", U16(3));
  EXPECT_EQ(pending->limit(), 7);
  EXPECT_EQ(pending->pendingCount(), 3);
  EXPECT_THROW(genericAttributeIs(pending, "limit", 65536), RangeException);
  EXPECT_EQ(genericAttribute(pending, "limit").number(), 7u);
}

TEST_F(GenericAccessTest, ReadsAndSetsTheErrorFlag) {
  EXPECT_EQ(genericAttribute(status, "errorOccured").strep(), "false");
  genericAttributeIs(status, "errorOccured", true);
  EXPECT_TRUE(status->errorOccured());
}

template <class Owner>
void queueOperations(const Ptr<Owner>& owner, const Ptr<GrpcCmd>& cmd) {
  const auto other = grpcCmdFactory(nullptr, resetAll);
  EXPECT_TRUE(op(owner, "cmdBatch", Lumo::opMemberEnq, {cmd}).isVoid());
  op(owner, "cmdBatch", Lumo::opMemberEnq, {other});
  EXPECT_EQ(owner->cmdBatchs(), 2u);
  EXPECT_EQ(op(owner, "cmdBatch", Lumo::opMemberRead, {1}).object().object, other);
  EXPECT_EQ(op(owner, "cmdBatch", Lumo::opMemberRead, {2}).object().object, nullptr);
  op(owner, "cmdBatch", Lumo::opMemberIs, {1, cmd});
  EXPECT_EQ(owner->cmdBatch(1), cmd);
  EXPECT_EQ(op(owner, "cmdBatch", Lumo::opMemberDel, {U32(1)}).object().object, cmd);
  EXPECT_EQ(op(owner, "cmdBatch", Lumo::opMemberDeq).object().object, cmd);
  EXPECT_EQ(op(owner, "cmdBatch", Lumo::opMemberDeq).object().object, nullptr);
  op(owner, "cmdBatch", Lumo::opMemberEnq, {cmd});
  op(owner, "cmdBatch", Lumo::opMemberDelAll);
  EXPECT_EQ(owner->cmdBatchs(), 0u);
  for (const int unsupported : {int(Lumo::opRead), int(Lumo::opWrite), int(Lumo::opCall), 9, -1}) {
    EXPECT_THROW(op(owner, "cmdBatch", unsupported, {cmd}), OpNotSupportedException) << unsupported;
  }
  EXPECT_THROW(op(owner, "cmdBatch", Lumo::opMemberEnq, {owner}), RangeException);
  EXPECT_THROW(op(owner, "cmdBatch", Lumo::opMemberEnq), RangeException);
  EXPECT_EQ(owner->cmdBatchs(), 0u);
}

TEST_F(GenericAccessTest, WorksOnTheQueues) {
  queueOperations(pending, cmd);
  queueOperations(group, cmd);
}

template <class Owner>
std::vector<U64> keysOf(const Ptr<Owner>& owner, Lumo::GenericIterator at) {
  std::vector<U64> keys;
  for (; at; ++at) {
    keys.push_back(at.key().number());
    EXPECT_EQ(at.object().object().object, owner->cmdBatch(static_cast<U32>(keys.back())));
  }
  return keys;
}

TEST_F(GenericAccessTest, WalksTheQueues) {
  for (int i = 0; i < 3; ++i) {
    pending->cmdBatchEnq(grpcCmdFactory(nullptr, getVersion));
    group->cmdBatchEnq(grpcCmdFactory(nullptr, getVersion));
  }
  EXPECT_THAT(keysOf(pending, genericIf(pending).iterate("cmdBatch")), ElementsAre(0, 1, 2));
  EXPECT_THAT(keysOf(pending, genericIf(pending).iterateFrom("cmdBatch", 1)), ElementsAre(1, 2));
  EXPECT_THAT(keysOf(group, genericIf(group).iterate("cmdBatch")), ElementsAre(0, 1, 2));
  EXPECT_THAT(keysOf(group, genericIf(group).iterateFrom("cmdBatch", 2)), ElementsAre(2));
}

TEST_F(GenericAccessTest, WalksTheNamedQueuesAndTheirMachines) {
  const auto mgr = manager();
  for (const char* name : {"a", "b"}) config->cmdConfigGroupIs(cmdConfigGroupFactory(name));
  std::vector<std::string> names;
  for (auto at = genericIf(config).iterate("cmdConfigGroup"); at; ++at) {
    names.push_back(at.key().text().stdString());
    EXPECT_EQ(at.object().object().object, config->cmdConfigGroup(at.key().text()));
  }
  for (auto at = genericIf(mgr).iterateFrom("cmdConfigGroupSm", "b"); at; ++at) {
    names.push_back(at.key().text().stdString());
    EXPECT_EQ(at.object().object().object, mgr->cmdConfigGroupSm(at.key().text()));
  }
  EXPECT_THAT(names, ElementsAre("a", "b", "b"));
  EXPECT_EQ(op(config, "cmdConfigGroup", Lumo::opMemberRead, {"a"}).object().object,
            config->cmdConfigGroup("a"));
  EXPECT_EQ(op(mgr, "cmdConfigGroupSm", Lumo::opMemberRead, {"a"}).object().object,
            mgr->cmdConfigGroupSm("a"));
  EXPECT_FALSE(genericIf(config).iterate("name"));
}

TEST_F(GenericAccessTest, AnAttributeThatIsNoCollectionHasNoWalk) {
  static constexpr Lumo::IteratorOps none{};
  const auto mgr = manager();
  const auto sm = cmdConfigGroupSmFactory(group, mgr.ptr());
  for (const Ptr<Lumo::PtrInterface>& object :
       std::vector<Ptr<Lumo::PtrInterface>>{host, config, pending, status, group, cmd, mgr, sm}) {
    const LumoType& type = *object->fwkType();
    for (const Lumo::LumoAttr& attr : type.attributes()) {
      if (attr.collection()) continue;
      const Lumo::IteratorOps* ops = &none;
      EXPECT_EQ(type.iterator(object.ptr(), attr, &ops), nullptr) << attr.name();
      EXPECT_EQ(type.iteratorKey(object.ptr(), attr, "a", &ops), nullptr) << attr.name();
      EXPECT_EQ(ops, &none);
    }
  }
}

TEST_F(GenericAccessTest, DrivesTheManager) {
  const auto mgr = manager();
  EXPECT_EQ(genericAttribute(mgr, "hostConfig").object().object, host);
  EXPECT_EQ(genericAttribute(mgr, "pendingQueue").object().object, pending);
  EXPECT_EQ(genericAttribute(mgr, "grpcErrorHandlingStatus").object().object, status);
  EXPECT_EQ(genericAttribute(mgr, "initialized").strep(), "true");
  group->cmdBatchEnq(cmd);
  EXPECT_EQ(genericCall(mgr, "doEnqueueBatchHelper", group).number(), 1u);
  EXPECT_EQ(pending->cmdBatchs(), 1u);
  group->cmdBatchEnq(cmd);
  genericCall(mgr, "doEnqueueBatch", group);
  EXPECT_EQ(pending->cmdBatchs(), 2u);
  genericCall(mgr, "doFlushPendingQueue");  // in simulation, nothing
  genericCall(mgr, "destroyGrpcClient");    // likewise
  EXPECT_EQ(pending->cmdBatchs(), 2u);
  config->cmdConfigGroupIs(group);
  genericCall(mgr, "handleCmdConfigGroup", Lumo::Name("ports"));
  EXPECT_EQ(mgr->cmdConfigGroupSms(), 1u);
  genericCall(mgr, "handleInitialized");
  EXPECT_THROW(genericAttribute(mgr, "client"), OpNotSupportedException);
}

TEST_F(GenericAccessTest, SetsTheManagersCondition) {
  const auto mgr = manager();
  EXPECT_EQ(genericAttribute(mgr, "threadCondition").object().object, nullptr);
  const Ptr<Lumo::Condition> condition(new Lumo::Condition, Lumo::NoRefcountIncrement());
  genericAttributeIs(mgr, "threadCondition", condition);
  EXPECT_EQ(mgr->threadCondition(), condition.ptr());
  EXPECT_THROW(genericAttributeIs(mgr, "threadCondition", host), RangeException);
  genericAttributeIs(mgr, "threadCondition", nullptr);
  EXPECT_EQ(mgr->threadCondition(), nullptr);
}

TEST_F(GenericAccessTest, DrivesAStateMachine) {
  const auto mgr = manager();
  const auto sm = cmdConfigGroupSmFactory(group, mgr.ptr());
  const auto clock = Lumo::Clock::ClockIs("clock");
  genericAttributeIs(sm, "clock", clock);
  EXPECT_EQ(genericAttribute(sm, "clock").object().object, clock);
  EXPECT_EQ(genericAttribute(sm, "name").text(), "ports");
  group->cmdBatchEnq(cmd);
  genericCall(sm, "handleBatch");
  EXPECT_EQ(pending->cmdBatchs(), 1u);
  genericAttributeIs(sm, "configGroup", nullptr);
  EXPECT_EQ(sm->configGroup(), nullptr);
  EXPECT_THROW(genericAttribute(sm, "connectionsMgr"), OpNotSupportedException);
}

TEST_F(GenericAccessTest, AConstViewRefusesEveryChange) {
  group->cmdBatchEnq(cmd);
  const Ptr<CmdConfigGroup const> constGroup = group;
  EXPECT_EQ(op(constGroup, "cmdBatch", Lumo::opMemberRead, {0}).object().object, cmd);
  EXPECT_THROW(genericAttributeIs(constGroup, "enqueueVersion", 1), OpNotSupportedException);
  for (const int change : {int(Lumo::opMemberIs), int(Lumo::opMemberDel), int(Lumo::opMemberDelAll),
                           int(Lumo::opMemberEnq), int(Lumo::opMemberDeq)}) {
    EXPECT_THROW(op(constGroup, "cmdBatch", change), OpNotSupportedException) << change;
  }
  EXPECT_THROW(genericCall(Ptr<GrpcCmd const>(cmd), "freeRequestMemory"), OpNotSupportedException);
  EXPECT_EQ(group->cmdBatchs(), 1u);
  EXPECT_EQ(group->enqueueVersion(), 0u);
  EXPECT_TRUE(cmd->request());
}

TEST_F(GenericAccessTest, NumbersTheOperationsOfAQueueUpToSeven) {
  group->cmdBatchEnq(cmd);
  EXPECT_EQ(op(group, "cmdBatch", 2, {0}).object().object, cmd);
  op(group, "cmdBatch", 6, {cmd});
  op(group, "cmdBatch", 3, {5, cmd});
  EXPECT_EQ(group->cmdBatchs(), 3u);
  EXPECT_EQ(op(group, "cmdBatch", 4, {5}).object().object, cmd);
  EXPECT_EQ(op(group, "cmdBatch", 7).object().object, cmd);
  op(group, "cmdBatch", 5);
  EXPECT_EQ(group->cmdBatchs(), 0u);
  for (const int operation : {0, 1, 8, 9}) {
    EXPECT_THROW(op(group, "cmdBatch", operation, {cmd}), OpNotSupportedException) << operation;
    EXPECT_THROW(op(group, "cmdBatch", operation), OpNotSupportedException) << operation;
  }
  EXPECT_EQ(op(status, "errorOccured", 0).strep(), "false");
  op(status, "errorOccured", 1, {true});
  EXPECT_TRUE(status->errorOccured());
}

TEST_F(GenericAccessTest, WalksEachCollectionFromItsStartAndFromAKey) {
  const auto mgr = manager();
  for (const char* name : {"a", "b", "c"}) config->cmdConfigGroupIs(cmdConfigGroupFactory(name));
  const auto names = [](Lumo::GenericIterator at) {
    std::vector<std::string> found;
    for (; at; ++at) found.push_back(at.key().text().stdString());
    return found;
  };
  EXPECT_THAT(names(genericIf(config).iterate("cmdConfigGroup")), ElementsAre("a", "b", "c"));
  EXPECT_THAT(names(genericIf(config).iterateFrom("cmdConfigGroup", "b")), ElementsAre("b", "c"));
  EXPECT_THAT(names(genericIf(config).iterateFrom("cmdConfigGroup", "x")), ElementsAre());
  EXPECT_THAT(names(genericIf(mgr).iterate("cmdConfigGroupSm")), ElementsAre("a", "b", "c"));
  EXPECT_THAT(names(genericIf(mgr).iterateFrom("cmdConfigGroupSm", "c")), ElementsAre("c"));
  EXPECT_THROW(genericIf(config).iterateFrom("cmdConfigGroup", 1), RangeException);
  EXPECT_THAT(keysOf(pending, genericIf(pending).iterate("cmdBatch")), ElementsAre());
}

TEST(GenericAccess, DrivesAConnectedManager) {
  support::FakeDaemon daemon;
  support::Agent agent;
  daemon.hold();
  agent.connect(daemon.port());
  EXPECT_EQ(genericAttribute(agent.manager, "threadCondition").object().object.ptr(),
            agent.manager->threadCondition());
  agent.enqueue();
  genericCall(agent.manager, "doEnqueueBatch", agent.queue());
  EXPECT_TRUE(agent.eventually([&] { return daemon.calls().size() == 1; }));
  agent.enqueue();
  agent.enqueue();
  genericCall(agent.manager->cmdConfigGroupSm("main"), "handleBatch");
  EXPECT_EQ(agent.waiting(), 2u);
  genericCall(agent.manager, "doFlushPendingQueue");
  EXPECT_EQ(agent.waiting(), 0u);
  daemon.release();
  EXPECT_TRUE(agent.eventually([&] { return agent.log->responses == 1; }));
}

TEST(GenericAccess, DescribesTheBuiltInTypes) {
  EXPECT_STREQ(Lumo::Builtin<bool>::_lumoType.typeName(), "bool");
  EXPECT_STREQ(Lumo::Builtin<int>::_lumoType.typeName(), "int");
  EXPECT_STREQ(Lumo::Builtin<unsigned short>::_lumoType.typeName(), "U16");
  EXPECT_STREQ(Lumo::Builtin<unsigned int>::_lumoType.typeName(), "U32");
  EXPECT_STREQ(Lumo::Builtin<unsigned long long>::_lumoType.typeName(), "U64");
  EXPECT_STREQ(Lumo::Builtin<Lumo::String>::_lumoType.typeName(), "Lumo::String");
  EXPECT_STREQ(Lumo::Name::_lumoType.typeName(), "Lumo::Name");
  EXPECT_STREQ(Lumo::Entity::_lumoType.typeName(), "Lumo::Entity");
  EXPECT_STREQ(Lumo::PtrInterface::_lumoType.typeName(), "Lumo::PtrInterface");
  EXPECT_STREQ(Lumo::Clock::_lumoType.typeName(), "Lumo::Clock");
  EXPECT_STREQ(Lumo::Lock::_lumoType.typeName(), "Lumo::Lock");
  EXPECT_STREQ(Lumo::Condition::_lumoType.typeName(), "Lumo::Condition");
  EXPECT_STREQ(Lumo::_lumoType_void.typeName(), "void");
}

}  // namespace
