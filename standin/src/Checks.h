#pragma once

#include <google/protobuf/repeated_field.h>

#include <cstdint>
#include <string>

#include "ModuleState.h"

// What several module classes check in their arguments in the same way. Each check refuses with
// EINVAL.

namespace Standin {

// Bytes of a packet that an argument may reach.
constexpr std::uint64_t packetRoom = 2048;
// Bytes of a number that a rule compares or writes.
constexpr std::uint64_t maxNumberSize = 8;

// Six bytes from text, as a number; -1 when the text has fewer. What stands after them does not
// matter, nor whether a byte has one digit or two.
std::int64_t macNumber(const std::string& text);

// Whether a gate may be named: one that the class could have, or the one that stands for dropping.
inline bool nameable(std::uint16_t gate) {
  return gate <= dropGate;
}
// Gates to spread packets over, cut as the daemon does; refuses with "`text`N".
void checkGates(const google::protobuf::RepeatedField<std::int64_t>& gates, const char* text);
void checkBurst(std::uint64_t burst);
// The IPv4 address in host order; refuses with "`complaint`TEXT".
std::uint32_t checkedAddress(const std::string& text, const char* complaint);

// Adds an attribute; `where` stands before the text of the refusal.
void declare(ModuleState& state, const std::string& name, std::uint64_t size, Attribute::Mode mode,
             const std::string& where = "");

// The number as so many bytes, the most significant first; empty when it does not fit.
std::string numberBytes(std::uint64_t value, std::uint64_t bytes);
// The value as so many bytes; refuses when it has not that many.
template <class FieldData>
std::string valueBytes(const FieldData& value, std::uint64_t bytes) {
  if (value.encoding_case() == FieldData::kValueInt) return numberBytes(value.value_int(), bytes);
  return value.value_bin().size() == bytes ? value.value_bin() : "";
}

}  // namespace Standin
