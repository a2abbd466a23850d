#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <cstdio>

#include "../SecondThread.h"

#ifdef BENCH_LTTNG
#include "LttngPoint.h"
#endif

// The same line as TracePointBench writes, by others.
namespace {

void SpdlogOff(benchmark::State& state) {
  spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
  logger.set_level(spdlog::level::off);
  int i = 0;
  for (auto _ : state) {
    logger.info("Failure: error_code: {} error_message: {}", i++, "unavailable");
    benchmark::ClobberMemory();
  }
}
BENCHMARK(SpdlogOff);

void SpdlogSyncToNull(benchmark::State& state) {
  spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
  int i = 0;
  for (auto _ : state) {
    logger.info("Failure: error_code: {} error_message: {}", i++, "unavailable");
  }
}
BENCHMARK(SpdlogSyncToNull);

void SpdlogAsyncToNull(benchmark::State& state) {
  spdlog::init_thread_pool(8192, 1);
  auto logger = std::make_shared<spdlog::async_logger>(
      "bench", std::make_shared<spdlog::sinks::null_sink_mt>(), spdlog::thread_pool(),
      spdlog::async_overflow_policy::overrun_oldest);
  int i = 0;
  for (auto _ : state) {
    logger->info("Failure: error_code: {} error_message: {}", i++, "unavailable");
  }
  spdlog::shutdown();
}
BENCHMARK(SpdlogAsyncToNull);

void FprintfToDevNull(benchmark::State& state) {
  std::FILE* out = std::fopen("/dev/null", "w");
  if (!out) {
    state.SkipWithError("cannot open /dev/null");
    return;
  }
  int i = 0;
  for (auto _ : state) {
    std::fprintf(out, "Failure: error_code: %d error_message: %s\n", i++, "unavailable");
  }
  std::fclose(out);
}
BENCHMARK(FprintfToDevNull);

#ifdef BENCH_LTTNG
void LttngPoint(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    lttngPoint(i, i + 1);
    ++i;
    benchmark::ClobberMemory();
  }
  state.SetLabel(lttngPointIsOn() ? "recorded by a session" : "off: no session has enabled it");
}
BENCHMARK(LttngPoint);
BENCHMARK(LttngPoint)->Threads(2)->UseRealTime();
#endif

}  // namespace
