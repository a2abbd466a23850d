#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include <Skein/Skein.h>
#include <Twine/Twine.h>

namespace BenchReader {

Lumo::TraceHandle& handle() {
  static Lumo::TraceHandle made("BenchReader", false);
  return made;
}

U8 levelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
constexpr Twine::Module module{&handle, levelMap, "ReaderBench.cpp"};
constexpr Twine::Point point{&module, 1, "write", 5, Twine::Sinks::both, "a=%s b=%s"};

}  // namespace BenchReader

namespace {

// What `skein dump FILE > /dev/null` does, from the opening of a full file to its last line.
void ReaderDumpToDevNull(benchmark::State& state) {
  const std::string path = "/tmp/trace-bench-reader-" + std::to_string(::getpid()) + ".skein";
  Skein::TraceHandle handle(path, {64 * 1024 * 1024, false});
  Skein::defaultSkeinHandleIs(&handle);
  for (int i = 0; i < 2'000'000; ++i) Twine::trace<BenchReader::point>(i, i + 1);
  Skein::defaultSkeinHandleIs(nullptr);
  const int out = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  std::size_t records = 0;
  for (auto _ : state) {
    Skein::Reader reader(path);
    std::string text;
    const auto flush = [&] {
      if (::write(out, text.data(), text.size()) < 0) state.SkipWithError("cannot write");
      text.clear();
    };
    records += reader.read([&](const Skein::Record& record) {
      record.appendLine(text);
      if (text.size() >= 64 * 1024) flush();
    });
    flush();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(records));
  ::close(out);
  ::unlink(path.c_str());
}
BENCHMARK(ReaderDumpToDevNull)->Unit(benchmark::kMillisecond);

}  // namespace
