#pragma once

#include <Twine/Point.h>

// The trace points of the connection manager. File, line, function and text are part of the
// interface: they stay as they are when the code moves, so that what watches the log can match on
// them.
namespace Norv::ManagerTrace {

Lumo::TraceHandle& _defaultTraceHandle();  // facility "NorvConnectionsMgr"

extern U8 levelMap[10];
// Maps the trace levels 0 to 9 of this module to the levels its ring-buffer records are logged
// under; returns true. The library never calls it. Any thread.
bool _mapTwineToSkein(U8 l0, U8 l1, U8 l2, U8 l3, U8 l4, U8 l5, U8 l6, U8 l7, U8 l8, U8 l9);

inline constexpr Twine::Module module{&_defaultTraceHandle, levelMap, "NorvConnectionsMgr.lumo"};

using Twine::Sinks;
inline constexpr Twine::Point handleBatch{
    &module, 16, "handleBatch", 5, Sinks::both, "void Norv::CmdConfigGroupSm::handleBatch()"};
inline constexpr Twine::Point doEnqueueBatch{
    &module, 39,          "doEnqueueBatch",
    5,       Sinks::both, "void Norv::ConnectionsMgr::doEnqueueBatch(const Ptr&)"};
inline constexpr Twine::Point wakeClient{&module, 58,          "doEnqueueBatch",
                                         5,       Sinks::both, "Wake the grpcClient up."};
inline constexpr Twine::Point doFlushPendingQueue{
    &module, 65,          "doFlushPendingQueue",
    5,       Sinks::both, "void Norv::ConnectionsMgr::doFlushPendingQueue()"};
inline constexpr Twine::Point handleCmdConfigGroup{
    &module, 75,          "handleCmdConfigGroup",
    5,       Sinks::both, "void Norv::ConnectionsMgr::handleCmdConfigGroup(Lumo::Name)",
    1};
inline constexpr Twine::Point creatingSm{
    &module, 82, "handleCmdConfigGroup", 5, Sinks::both, "Creating a CmdConfigGroupSm for ", 1};
inline constexpr Twine::Point deletingSm{
    &module, 85, "handleCmdConfigGroup", 5, Sinks::both, "Deleting the CmdConfigGroupSm for ", 1};
inline constexpr Twine::Point destroyGrpcClient{
    &module, 92,          "destroyGrpcClient",
    5,       Sinks::both, "void Norv::ConnectionsMgr::destroyGrpcClient()"};
inline constexpr Twine::Point handleInitialized{
    &module, 115,         "handleInitialized",
    5,       Sinks::both, "void Norv::ConnectionsMgr::handleInitialized()"};
inline constexpr Twine::Point connecting{&module, 125,         "handleInitialized",
                                         5,       Sinks::both, "Connecting to Bessd (%s)"};
inline constexpr Twine::Point clientStarted{
    &module, 140,         "handleInitialized",
    5,       Sinks::both, "The grpc client has successfully started. client: ",
    1};

}  // namespace Norv::ManagerTrace
