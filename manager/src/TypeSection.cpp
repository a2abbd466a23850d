#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

// The section `.lumo.type` of the library file: the names of the registered types, each ended by a
// NUL and starting on a multiple of four bytes, nothing behind the last one's NUL. Tools read it
// from the file without loading it.
namespace Norv {

namespace {

constexpr std::string_view names[] = {
#define NORV_REGISTERED_TYPE(Module, Type, descriptor) "Norv::" #Type,
#include <Norv/RegisteredTypes.def>
};

constexpr std::size_t padded(std::size_t size) {
  return (size + 3) / 4 * 4;
}

constexpr std::size_t sectionSize() {
  std::size_t size = 0;
  for (const std::string_view name : names) size = padded(size) + name.size() + 1;
  return size;
}

consteval std::array<char, sectionSize()> packedNames() {
  std::array<char, sectionSize()> bytes{};
  std::size_t at = 0;
  for (const std::string_view name : names) {
    std::copy(name.begin(), name.end(), bytes.begin() + at);
    at = padded(at + name.size() + 1);
  }
  return bytes;
}

static_assert(sectionSize() == 210);

// One object, so that neither compiler nor linker reorders or pads it; `retain` keeps it through
// --gc-sections. The alignment is the variable's, as that of a type would round its size up.
[[gnu::section(".lumo.type"), gnu::used, gnu::retain,
  gnu::aligned(4)]] constinit const auto typeSection = packedNames();

}  // namespace

}  // namespace Norv
