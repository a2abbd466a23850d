#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER norv_bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "LttngProvider.h"

#if !defined(NORV_BENCH_LTTNG_PROVIDER_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define NORV_BENCH_LTTNG_PROVIDER_H

#include <lttng/tracepoint.h>

LTTNG_UST_TRACEPOINT_EVENT(norv_bench, two_integers, LTTNG_UST_TP_ARGS(int, first, int, second),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(int, first, first)
                                                   lttng_ust_field_integer(int, second, second)))

#endif

#include <lttng/tracepoint-event.h>
