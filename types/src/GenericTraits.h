#pragma once

#include <google/protobuf/message.h>

#include <string_view>

#include <Lumo/GenericValue.h>
#include <Norv/GrpcRequestType.h>

// How the command model's own value types travel through the generic interface.
namespace Lumo {

template <>
struct GenericTraits<Norv::GrpcRequestType> {
  static constexpr const LumoType* type = &Norv::_lumoType_GrpcRequestType;
  static GenericValue wrap(Norv::GrpcRequestType value) {
    return GenericValue(GenericValue::Enum{&Norv::_lumoType_GrpcRequestType, value});
  }
  // A value of the enumeration, not of another one, its number, or its name.
  static Norv::GrpcRequestType unwrap(const GenericValue& value) {
    if (std::holds_alternative<String>(value.storage())) {
      return Norv::GrpcRequestTypeInstance(value.text());
    }
    const auto* enumerated = std::get_if<GenericValue::Enum>(&value.storage());
    if (enumerated && enumerated->type != type) {
      throwRangeException(String("expected a value of ") + type->typeName() + ", got one of " +
                          enumerated->type->typeName());
    }
    return Norv::GrpcRequestTypeInstance(GenericTraits<U32>::unwrap(GenericValue(value.number())));
  }
};

// A message has no framework descriptor: it travels as a pointer with a type name.
template <>
struct GenericTraits<google::protobuf::Message*> {
  static constexpr const char* typeName = "google::protobuf::Message";
  static google::protobuf::Message* unwrap(const GenericValue& value) {
    if (const auto* object = std::get_if<GenericValue::Object>(&value.storage());
        object && !object->object) {
      return nullptr;
    }
    const auto* opaque = std::get_if<GenericValue::Opaque>(&value.storage());
    if (!opaque || std::string_view(opaque->typeName) != typeName) {
      throwRangeException(String("expected a ") + typeName + ", got " + value.strep());
    }
    return static_cast<google::protobuf::Message*>(opaque->pointer);
  }
};

}  // namespace Lumo
