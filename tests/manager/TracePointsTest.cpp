// The library's trace points, compared with the list of them written out once more.

#include <gtest/gtest.h>

#include <set>

#include <Norv/ClientTrace.h>
#include <Norv/ManagerTrace.h>
#include <Norv/TypesTrace.h>

namespace {

using namespace Norv;
using Twine::Sinks;

struct Expected {
  const Twine::Point& point;
  const char* facility;
  const char* file;
  int line;
  const char* function;
  int level;
  Sinks sinks;
  const char* text;
};

const char* const managerFile = "NorvConnectionsMgr.lumo";
const char* const clientFile = "GrpcClient.cpp";
const char* const typesFile = "GrpcTypes.lumo";

const Expected all[] = {
    {ManagerTrace::handleBatch, "NorvConnectionsMgr", managerFile, 16, "handleBatch", 5,
     Sinks::both, "void Norv::CmdConfigGroupSm::handleBatch()"},
    {ManagerTrace::doEnqueueBatch, "NorvConnectionsMgr", managerFile, 39, "doEnqueueBatch", 5,
     Sinks::both, "void Norv::ConnectionsMgr::doEnqueueBatch(const Ptr&)"},
    {ManagerTrace::wakeClient, "NorvConnectionsMgr", managerFile, 58, "doEnqueueBatch", 5,
     Sinks::both, "Wake the grpcClient up."},
    {ManagerTrace::doFlushPendingQueue, "NorvConnectionsMgr", managerFile, 65,
     "doFlushPendingQueue", 5, Sinks::both, "void Norv::ConnectionsMgr::doFlushPendingQueue()"},
    {ManagerTrace::handleCmdConfigGroup, "NorvConnectionsMgr", managerFile, 75,
     "handleCmdConfigGroup", 5, Sinks::both,
     "void Norv::ConnectionsMgr::handleCmdConfigGroup(Lumo::Name)"},
    {ManagerTrace::creatingSm, "NorvConnectionsMgr", managerFile, 82, "handleCmdConfigGroup", 5,
     Sinks::both, "Creating a CmdConfigGroupSm for "},
    {ManagerTrace::deletingSm, "NorvConnectionsMgr", managerFile, 85, "handleCmdConfigGroup", 5,
     Sinks::both, "Deleting the CmdConfigGroupSm for "},
    {ManagerTrace::destroyGrpcClient, "NorvConnectionsMgr", managerFile, 92, "destroyGrpcClient", 5,
     Sinks::both, "void Norv::ConnectionsMgr::destroyGrpcClient()"},
    {ManagerTrace::handleInitialized, "NorvConnectionsMgr", managerFile, 115, "handleInitialized",
     5, Sinks::both, "void Norv::ConnectionsMgr::handleInitialized()"},
    {ManagerTrace::connecting, "NorvConnectionsMgr", managerFile, 125, "handleInitialized", 5,
     Sinks::both, "Connecting to Bessd (%s)"},
    {ManagerTrace::clientStarted, "NorvConnectionsMgr", managerFile, 140, "handleInitialized", 5,
     Sinks::both, "The grpc client has successfully started. client: "},
    {TypesTrace::processResponse, "GrpcTypes", typesFile, 12, "processResponse", 8, Sinks::text,
     "virtual void Norv::GrpcCmd::processResponse(google::protobuf::Message*)"},
    {TypesTrace::freeRequestMemory, "GrpcTypes", typesFile, 18, "freeRequestMemory", 9, Sinks::text,
     "Deleting the grpc message"},
    {ClientTrace::starting, "GrpcClient", clientFile, 20, "GrpcClient", 1, Sinks::text,
     "Starting GrpcClient"},
    {ClientTrace::terminating, "GrpcClient", clientFile, 30, "~GrpcClient", 1, Sinks::text,
     "Terminating GrpcClient"},
    {ClientTrace::noMoreCmds, "GrpcClient", clientFile, 77, "doProcessGrpcCmd", 5, Sinks::text,
     "There are no more GrpcCmds to process"},
    {ClientTrace::wakenUp, "GrpcClient", clientFile, 81, "doProcessGrpcCmd", 5, Sinks::text,
     "Waken up by the main thread. Get new GrpcCmd to handle"},
    {ClientTrace::failedResponse, "GrpcClient", clientFile, 102, "processResponseCommon", 0,
     Sinks::both, "Failure to process response: error_code: %s error_message: %s"},
    {ClientTrace::failedSend, "GrpcClient", clientFile, 130, "sendRequestCommon", 0, Sinks::both,
     "Failure to send request: error_code: %s error_message: %s"},
    {ClientTrace::sending, "GrpcClient", clientFile, 137, "sendRequestInternal", 8, Sinks::text,
     "Sending %s"},
    {ClientTrace::processing, "GrpcClient", clientFile, 326, "processResponse", 8, Sinks::text,
     "Processing response. RequestType: %s"},
};

TEST(TracePoints, AreAsWrittenDownHere) {
  for (const Expected& expected : all) {
    SCOPED_TRACE(expected.text);
    EXPECT_EQ(expected.point.module->handle().name(), expected.facility);
    EXPECT_STREQ(expected.point.module->file, expected.file);
    EXPECT_EQ(expected.point.line, expected.line);
    EXPECT_STREQ(expected.point.function, expected.function);
    EXPECT_EQ(expected.point.level, expected.level);
    EXPECT_EQ(expected.point.sinks, expected.sinks);
    EXPECT_STREQ(expected.point.text, expected.text);
    const std::set<int> appending{75, 82, 85, 140};  // lines of the manager's points
    const bool appends =
        expected.point.module == &ManagerTrace::module && appending.count(expected.line) != 0;
    EXPECT_EQ(expected.point.appended, appends ? 1 : 0);
  }
}

// Each module's map from trace level to the level of its ring records. All values differ, and each
// moves, so that a level in another's place would show.
template <class Map>
void mapsOnlyItself(Map map, const U8* own, const U8* other) {
  for (U8 i = 0; i < 10; ++i) {
    EXPECT_EQ(own[i], i);
    EXPECT_EQ(other[i], i);
  }
  EXPECT_TRUE(map(9, 8, 7, 6, 5, 4, 3, 2, 1, 0));
  for (U8 i = 0; i < 10; ++i) {
    EXPECT_EQ(own[i], 9 - i);
    EXPECT_EQ(other[i], i);
  }
  EXPECT_TRUE(map(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
}

TEST(TracePoints, MapTheirLevelsModuleByModule) {
  mapsOnlyItself(&ManagerTrace::_mapTwineToSkein, ManagerTrace::levelMap, ClientTrace::levelMap);
  mapsOnlyItself(&ClientTrace::_mapTwineToSkein, ClientTrace::levelMap, ManagerTrace::levelMap);
}

}  // namespace
