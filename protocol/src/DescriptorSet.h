#pragma once

#include <cstddef>

namespace Bess {

// The .proto files as a serialized FileDescriptorSet with their comments; made by the build.
extern const unsigned char descriptorSet[];
extern const std::size_t descriptorSetSize;

}  // namespace Bess
