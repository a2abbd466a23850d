#pragma once

#include <cstddef>

namespace Norvctl {

// docs/command-files.md; made by the build.
extern const unsigned char commandFilesText[];
extern const std::size_t commandFilesTextSize;

}  // namespace Norvctl
