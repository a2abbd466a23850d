#pragma once

namespace Norvd {

// Starts this program again, without --supervise, as often as it ends; after growing pauses where
// it did not get as far as to a switch as wanted. Passes signals on, and ends with SIGTERM or
// SIGINT, once the child has ended. Returns the status to end with. Before there are threads.
int supervise(int argc, char** argv);

}  // namespace Norvd
