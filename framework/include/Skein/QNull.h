#pragma once

namespace Skein {

// An argument that stands for "nothing there". It takes no bytes in a record and reads "(null)".
struct QNull {};

}  // namespace Skein
