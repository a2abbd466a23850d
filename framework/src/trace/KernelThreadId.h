#pragma once

namespace Lumo {

// The kernel's id of the calling thread, kept per thread; right in a forked child too.
int kernelThreadId();

}  // namespace Lumo
