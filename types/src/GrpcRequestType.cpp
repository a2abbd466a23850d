#include <iterator>

#include <Norv/GrpcRequestType.h>

namespace Norv {

namespace {

using Services = Lumo::EnumType<unsigned int>;

constexpr Lumo::EnumRow rows[] = {
    {"unknown", 0},
#define NORV_REQUEST(number, name, Rpc, Request, Response) {#name, number},
#include <Norv/GrpcRequests.def>
};

consteval bool dense() {
  for (U32 i = 0; i < std::size(rows); ++i) {
    if (rows[i].number != i) return false;
  }
  return std::size(rows) == grpcRequestTypes;
}
static_assert(dense(), "the numbers in GrpcRequests.def run from 1 upwards without a gap");

}  // namespace

constinit const Lumo::EnumLumoType _lumoType_GrpcRequestType("Norv::GrpcRequestType", rows);

GrpcRequestType GrpcRequestTypeInstance(U32 value) {
  return static_cast<GrpcRequestType>(Services::instance(_lumoType_GrpcRequestType, value));
}

GrpcRequestType GrpcRequestTypeInstance(const Lumo::String& name) {
  return static_cast<GrpcRequestType>(Services::instance(_lumoType_GrpcRequestType, name));
}

std::ostream& operator<<(std::ostream& out, const GrpcRequestType& type) {
  return Services::operatorLessLess(_lumoType_GrpcRequestType, out, type);
}

Lumo::String valueToStrep(const GrpcRequestType& type) {
  return Services::valueToStrep(_lumoType_GrpcRequestType, type);
}

Lumo::String stringValue(GrpcRequestType type) {
  return Services::stringValue(_lumoType_GrpcRequestType, type);
}

void sequenceToValue(Lumo::String::IteratorConst& begin, const Lumo::String::IteratorConst& end,
                     GrpcRequestType* out) {
  unsigned int value = 0;
  Services::sequenceToValue(_lumoType_GrpcRequestType, begin, end, &value);
  *out = static_cast<GrpcRequestType>(value);
}

}  // namespace Norv
