#pragma once

namespace Norvd {

// Starts this program again, without --supervise, as often as it ends, after pauses (Backoff).
// Passes signals on, and ends with SIGTERM or SIGINT, once the child has ended, and when the very
// first child finds its options bad or its switch taken. Returns the status to end with. Before
// there are threads.
int supervise(int argc, char** argv);

}  // namespace Norvd
