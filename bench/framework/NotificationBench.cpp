// A change of an attribute told to so many reactors, beside signals with so many slots; and reading
// an integer attribute by its descriptor, beside a look-up in a map of std::function.

#include <benchmark/benchmark.h>
#include <sigc++/sigc++.h>

#include <boost/signals2/signal.hpp>
#include <functional>
#include <unordered_map>
#include <vector>

#include "Bench.h"

namespace bench {

namespace {

constexpr auto attributes =
    Lumo::attrTable(Lumo::readWrite<Sample, &Sample::value, &Sample::valueIs>(258, "value"));

Lumo::Ptr<Sample> sampleFactory() {
  return Lumo::allocate<Sample>();
}

struct Counter : Empty::NotifieeConst {
  explicit Counter(const Lumo::Ptr<Empty const>& entity) : NotifieeConst(entity) {}
  void onValue() override { benchmark::DoNotOptimize(++calls); }
  int calls = 0;
};

}  // namespace

constinit const Lumo::LumoType Bare::_lumoType("bench::Bare");
constinit const Lumo::LumoType Empty::_lumoType("bench::Empty");
constinit const Lumo::LumoType Empty::NotifieeConst::_lumoType("bench::Empty::NotifieeConst");
constinit const Lumo::LumoType Sample::_lumoType("bench::Sample", attributes,
                                                 Lumo::genericFunctions<Sample, &sampleFactory>());

namespace {

void Notify(benchmark::State& state) {
  const auto entity = sampleFactory();
  std::vector<Lumo::Ptr<Counter>> reactors;
  for (int64_t i = 0; i < state.range(0); ++i) reactors.push_back(Lumo::allocate<Counter>(entity));
  int value = 0;
  for (auto _ : state) entity->valueIs(++value);
}
BENCHMARK(Notify)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

// An attribute whose change is told by a signal.
template <class Signal>
void emit(benchmark::State& state) {
  Signal signal;
  std::vector<int> calls(static_cast<std::size_t>(state.range(0)));
  for (int& count : calls) signal.connect([&count] { benchmark::DoNotOptimize(++count); });
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++value);
    signal();
  }
}
// Locks, as it may be told and followed from any thread.
void SignalsEmit(benchmark::State& state) {
  emit<boost::signals2::signal<void()>>(state);
}
BENCHMARK(SignalsEmit)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
// Locks nothing.
void SigcEmit(benchmark::State& state) {
  emit<sigc::signal<void>>(state);
}
BENCHMARK(SigcEmit)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

void GenericRead(benchmark::State& state) {
  const auto entity = sampleFactory();
  const auto view = Lumo::genericIf(entity);
  const Lumo::LumoAttr& attr = *entity->fwkType()->attr(258);
  for (auto _ : state) benchmark::DoNotOptimize(view.op(attr, Lumo::opRead));
}
BENCHMARK(GenericRead);

void MappedRead(benchmark::State& state) {
  const auto entity = sampleFactory();
  std::unordered_map<int, std::function<Lumo::GenericValue(Sample&)>> readers;
  readers[258] = [](Sample& sample) { return Lumo::GenericValue(sample.value()); };
  int id = 258;
  for (auto _ : state) {
    benchmark::DoNotOptimize(id);
    benchmark::DoNotOptimize(readers.find(id)->second(*entity));
  }
}
BENCHMARK(MappedRead);

}  // namespace

}  // namespace bench
