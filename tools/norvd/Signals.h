#pragma once

#include "UnderWay.h"

namespace Norvd {

// A write to what nobody reads any more, or has no room, fails and ends nothing. Before the first.
void outliveFailedWrites();

// From then on the process hears signals. SIGTERM and SIGINT ask the main thread to end it, and end
// it themselves should that not happen soon. What aborts it is noted first in `underWay`, which
// must stay. Once, on the main thread.
void installSignals(UnderWay& underWay);

// That asked for the end; 0: none did. Any thread.
int endingSignal();
// Whether SIGHUP came since it was asked last.
bool tookHangUp();

}  // namespace Norvd
