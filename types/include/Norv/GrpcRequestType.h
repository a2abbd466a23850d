#pragma once

#include <iosfwd>

#include <Lumo/EnumType.h>
#include <Lumo/String.h>

namespace Norv {

// Which RPC of the daemon a command is for. A value's name is its spelling here; the order and the
// numbers are those of GrpcRequests.def.
enum GrpcRequestType : U32 {
  unknown = 0,  // never set; no RPC
#define NORV_REQUEST(number, name, Rpc, Request, Response) name = number,
#include <Norv/GrpcRequests.def>
};

// How many values there are, `unknown` included.
inline constexpr U32 grpcRequestTypes = 1
#define NORV_REQUEST(number, name, Rpc, Request, Response) +1
#include <Norv/GrpcRequests.def>
    ;

extern const Lumo::EnumLumoType _lumoType_GrpcRequestType;

// The value of that number or name, matched exactly; RangeException if there is none.
GrpcRequestType GrpcRequestTypeInstance(U32 value);
GrpcRequestType GrpcRequestTypeInstance(const Lumo::String& name);

// The name; for a number outside the enumeration the number in decimal. Never throws for a value.
std::ostream& operator<<(std::ostream& out, const GrpcRequestType& type);
Lumo::String valueToStrep(const GrpcRequestType& type);
Lumo::String stringValue(GrpcRequestType type);

// Parses the name that starts at `begin`, moves `begin` behind it and sets *out. RangeException,
// and both as they were, if what stands there is no value's name.
void sequenceToValue(Lumo::String::IteratorConst& begin, const Lumo::String::IteratorConst& end,
                     GrpcRequestType* out);

}  // namespace Norv
