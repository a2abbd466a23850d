#pragma once

#include <Twine/Point.h>

// The trace points of the command model. File, line, function and text are part of the interface:
// they stay as they are when the code moves, so that what watches the log can match on them.
namespace Norv::TypesTrace {

Lumo::TraceHandle& _defaultTraceHandle();  // facility "GrpcTypes"

inline constexpr Twine::Module module{&_defaultTraceHandle, nullptr, "GrpcTypes.lumo"};

inline constexpr Twine::Point processResponse{
    &module,
    12,
    "processResponse",
    8,
    Twine::Sinks::text,
    "virtual void Norv::GrpcCmd::processResponse(google::protobuf::Message*)"};
inline constexpr Twine::Point freeRequestMemory{
    &module, 18, "freeRequestMemory", 9, Twine::Sinks::text, "Deleting the grpc message"};

}  // namespace Norv::TypesTrace
