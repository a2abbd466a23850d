#pragma once

#include <Twine/Point.h>

// The trace points of the daemon client. File, line, function and text are part of the interface:
// they stay as they are when the code moves, so that what watches the log can match on them.
namespace Norv::ClientTrace {

Lumo::TraceHandle& _defaultTraceHandle();  // facility "GrpcClient"

extern U8 levelMap[10];
// Maps the trace levels 0 to 9 of this module to the levels its ring-buffer records are logged
// under; returns true. The library never calls it. Any thread.
bool _mapTwineToSkein(U8 l0, U8 l1, U8 l2, U8 l3, U8 l4, U8 l5, U8 l6, U8 l7, U8 l8, U8 l9);

inline constexpr Twine::Module module{&_defaultTraceHandle, levelMap, "GrpcClient.cpp"};

using Twine::Sinks;
inline constexpr Twine::Point starting{&module, 20,          "GrpcClient",
                                       1,       Sinks::text, "Starting GrpcClient"};
inline constexpr Twine::Point terminating{&module, 30,          "~GrpcClient",
                                          1,       Sinks::text, "Terminating GrpcClient"};
inline constexpr Twine::Point noMoreCmds{
    &module, 77, "doProcessGrpcCmd", 5, Sinks::text, "There are no more GrpcCmds to process"};
inline constexpr Twine::Point wakenUp{
    &module, 81,          "doProcessGrpcCmd",
    5,       Sinks::text, "Waken up by the main thread. Get new GrpcCmd to handle"};
inline constexpr Twine::Point failedResponse{
    &module, 102,         "processResponseCommon",
    0,       Sinks::both, "Failure to process response: error_code: %s error_message: %s"};
inline constexpr Twine::Point failedSend{
    &module, 130,         "sendRequestCommon",
    0,       Sinks::both, "Failure to send request: error_code: %s error_message: %s"};
inline constexpr Twine::Point sending{&module, 137,         "sendRequestInternal",
                                      8,       Sinks::text, "Sending %s"};
inline constexpr Twine::Point processing{
    &module, 326, "processResponse", 8, Sinks::text, "Processing response. RequestType: %s"};

}  // namespace Norv::ClientTrace
