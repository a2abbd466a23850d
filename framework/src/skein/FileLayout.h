#pragma once

#include <Skein/Layout.h>

namespace Skein {

// The header of a new file of `size` bytes: where its areas are and how large.
FileHeader headerFor(U64 size, bool multiThreaded);

}  // namespace Skein
