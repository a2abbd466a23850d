#include <benchmark/benchmark.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <Skein/Skein.h>
#include <Twine/Twine.h>

namespace Bench {

Lumo::TraceHandle& handle() {
  static Lumo::TraceHandle made("Bench", false);
  return made;
}

U8 levelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
constexpr Twine::Module module{&handle, levelMap, "Bench.cpp"};
constexpr Twine::Point both{&module, 1, "both", 5, Twine::Sinks::both, "a=%s b=%s"};
constexpr Twine::Point line{
    &module, 2, "line", 5, Twine::Sinks::text, "Failure: error_code: %s error_message: %s"};
constexpr Twine::Point converted{
    &module, 3, "converted", 5, Twine::Sinks::both, "Failure: error_code: %s error_message: %s"};

}  // namespace Bench

namespace {

struct NullSink : Lumo::TraceSink {
  void lineIs(const Lumo::TraceLine& line) override { benchmark::DoNotOptimize(line.text.data()); }
};

// Formats the line and throws it away, as a sink that writes does before the write.
struct FormattingSink : Lumo::TraceSink {
  void lineIs(const Lumo::TraceLine& line) override {
    text.clear();
    Lumo::appendTraceLine(text, line);
    benchmark::DoNotOptimize(text.data());
  }
  std::string text;
};

void EmptyLoop(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(i++);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(EmptyLoop);

void PointOffBothSinks(benchmark::State& state) {
  Lumo::traceSettingIs("");
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(i++);
    Twine::trace<Bench::both>(i, i);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(PointOffBothSinks);

void PointOffTextOnly(benchmark::State& state) {
  Lumo::traceSettingIs("");
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(i++);
    Twine::trace<Bench::line>(i, "unavailable");
    benchmark::ClobberMemory();
  }
}
BENCHMARK(PointOffTextOnly);

std::string fileName() {
  return "/tmp/trace-bench-" + std::to_string(::getpid()) + ".skein";
}

void ringRecords(benchmark::State& state, bool multiThreaded) {
  static std::unique_ptr<Skein::TraceHandle> skein;
  if (state.thread_index() == 0) {
    Lumo::traceSettingIs("");
    skein = std::make_unique<Skein::TraceHandle>(
        fileName(), Skein::TraceOptions{4 * 1024 * 1024, multiThreaded});
    Skein::defaultSkeinHandleIs(skein.get());
  }
  int i = 0;
  for (auto _ : state) {
    Twine::trace<Bench::both>(i, i + 1);
    ++i;
  }
  if (state.thread_index() == 0) {
    skein.reset();
    ::unlink(fileName().c_str());
  }
}

void RingRecordSingleThreaded(benchmark::State& state) {
  ringRecords(state, false);
}
BENCHMARK(RingRecordSingleThreaded);

void RingRecordMultiThreaded(benchmark::State& state) {
  ringRecords(state, true);
}
BENCHMARK(RingRecordMultiThreaded);
// Time per record of each writer: the real time of one thread's iterations.
BENCHMARK(RingRecordMultiThreaded)->Threads(2);

void MonotonicClock(benchmark::State& state) {
  for (auto _ : state) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    benchmark::DoNotOptimize(now);
  }
}
BENCHMARK(MonotonicClock);
BENCHMARK(MonotonicClock)->Threads(2);

template <class Sink, const Twine::Point& point, class Message>
void textLines(benchmark::State& state, const Message& message) {
  Sink sink;
  Lumo::traceSinkIs(&sink);
  Lumo::traceSettingIs("Bench/*");
  int i = 0;
  for (auto _ : state) Twine::trace<point>(i++, message);
  Lumo::traceSettingIs("");
  Lumo::traceSinkIs(nullptr);
}

void TextLineToNullSink(benchmark::State& state) {
  textLines<NullSink, Bench::line>(state, "unavailable");
}
BENCHMARK(TextLineToNullSink);

void TextLineFormatted(benchmark::State& state) {
  textLines<FormattingSink, Bench::line>(state, "unavailable");
}
BENCHMARK(TextLineFormatted);

void ConvertedLineToNullSink(benchmark::State& state) {
  textLines<NullSink, Bench::converted>(state, "unavailable");
}
BENCHMARK(ConvertedLineToNullSink);

}  // namespace
