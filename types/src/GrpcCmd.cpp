#include <google/protobuf/message.h>

#include <Lumo/AttrTable.h>
#include <Norv/GrpcCmd.h>
#include <Norv/TypesTrace.h>

#include "GenericTraits.h"

namespace Norv {

Lumo::TraceHandle& TypesTrace::_defaultTraceHandle() {
  static Lumo::TraceHandle handle("GrpcTypes", false);
  return handle;
}

namespace {

constexpr auto attributes = Lumo::attrTable(
    Lumo::described(130, "request", Lumo::GenericTraits<google::protobuf::Message*>::typeName),
    Lumo::readOnly<GrpcCmd, &GrpcCmd::requestType>(131, "requestType"),
    Lumo::function<GrpcCmd, &GrpcCmd::freeRequestMemory>(133, "freeRequestMemory"));

}  // namespace

constinit const Lumo::LumoType GrpcCmd::_lumoType(
    "Norv::GrpcCmd", attributes, Lumo::genericFunctions<GrpcCmd, &grpcCmdFactory>());

Lumo::ValidPtr<GrpcCmd> GrpcCmd::GrpcCmdIs(google::protobuf::Message* request,
                                           GrpcRequestType requestType) {
  return Lumo::allocate<GrpcCmd>(request, requestType);
}

GrpcCmd::~GrpcCmd() {
  freeRequestMemory();
}

void GrpcCmd::processResponse(google::protobuf::Message*) {
  Twine::trace<TypesTrace::processResponse>();
}

void GrpcCmd::freeRequestMemory() {
  Twine::trace<TypesTrace::freeRequestMemory>();
  delete request_;
  request_ = nullptr;
}

Lumo::Ptr<GrpcCmd> grpcCmdFactory(google::protobuf::Message* request, GrpcRequestType requestType) {
  return Lumo::allocate<GrpcCmd>(request, requestType);
}

Lumo::GenericValue genericMessage(google::protobuf::Message* message) {
  return Lumo::GenericValue::Opaque{message,
                                    Lumo::GenericTraits<google::protobuf::Message*>::typeName};
}

}  // namespace Norv
