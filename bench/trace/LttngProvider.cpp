#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "LttngProvider.h"

#include "LttngPoint.h"

void lttngPoint(int first, int second) {
  lttng_ust_tracepoint(norv_bench, two_integers, first, second);
}

bool lttngPointIsOn() {
  return lttng_ust_tracepoint_enabled(norv_bench, two_integers);
}
