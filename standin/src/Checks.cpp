#include "Checks.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>

#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::uint64_t maxAttributeSize = 32;  // Bytes.

}  // namespace

std::int64_t macNumber(const std::string& text) {
  unsigned byte[6];
  if (std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &byte[0], &byte[1], &byte[2], &byte[3],
                  &byte[4], &byte[5]) != 6)
    return -1;
  std::int64_t number = 0;
  for (unsigned b : byte) number = number << 8 | (b & 255u);
  return number;
}

void checkGates(const google::protobuf::RepeatedField<std::int64_t>& gates, const char* text) {
  for (std::int64_t gate : gates) {
    const std::uint16_t cut = gateCut(static_cast<std::uint64_t>(gate));
    if (!nameable(cut)) throw Refusal(EINVAL, text + std::to_string(cut));
  }
}

void checkBurst(std::uint64_t burst) {
  if (burst > burstLimit) throw Refusal(EINVAL, "burst size must be [0,64]");
}

std::uint32_t checkedAddress(const std::string& text, const char* complaint) {
  in_addr address;
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) throw Refusal(EINVAL, complaint + text);
  return ntohl(address.s_addr);
}

void declare(ModuleState& state, const std::string& name, std::uint64_t size, Attribute::Mode mode,
             const std::string& where) {
  if (name.empty() || size < 1 || size > maxAttributeSize)
    throw Refusal(EINVAL, where + "add_metadata_attr() failed");
  for (const Attribute& present : state.attributes)
    if (present.name == name) throw Refusal(EEXIST, where + "add_metadata_attr() failed");
  state.attributes.push_back({name, size, mode});
}

std::string numberBytes(std::uint64_t value, std::uint64_t bytes) {
  std::string text(bytes, '\0');
  for (std::size_t at = bytes; at-- > 0; value >>= 8) text[at] = static_cast<char>(value & 255);
  return value == 0 ? text : "";
}

}  // namespace Standin
