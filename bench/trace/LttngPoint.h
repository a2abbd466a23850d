#pragma once

// A tracepoint of LTTng-UST with two integers. It records while a session of the LTTng daemon has
// enabled it: `lttng create; lttng enable-event -u 'norv_bench:*'; lttng start`.
void lttngPoint(int first, int second);
bool lttngPointIsOn();
