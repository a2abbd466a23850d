#pragma once

// The integer types of attributes. U64 is `unsigned long long` on every platform, because that is
// the type the registry knows by `Builtin<unsigned long long>`; `std::uint64_t` may be another.
typedef unsigned char U8;
typedef unsigned short U16;
typedef unsigned int U32;
typedef unsigned long long U64;

namespace Lumo {
using ::U16;
using ::U32;
using ::U64;
using ::U8;
}  // namespace Lumo

namespace Norv {
using ::U16;
using ::U32;
using ::U64;
using ::U8;
}  // namespace Norv
