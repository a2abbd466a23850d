// The three modules' handles: made at the first trace of their module and no sooner, and once.

#include <gtest/gtest.h>
#include <support/Environment.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <thread>

#include <Norv/ClientTrace.h>
#include <Norv/ManagerTrace.h>
#include <Norv/TypesTrace.h>

namespace {

using namespace Norv;

std::string handleNames() {
  std::string names;
  for (const Lumo::String& name : Lumo::TraceFacility::handleNames()) {
    names += ' ' + name.stdString();
  }
  return names;
}

// Eight threads make a module's first trace at once; how many handles they saw.
template <const Twine::Point& point>
std::size_t handlesOfFirstTraces() {
  constexpr int count = 8;
  std::atomic<int> ready{0};
  Lumo::TraceHandle* seen[count] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      ++ready;
      while (ready < count) std::this_thread::yield();
      Twine::trace<point>();
      seen[i] = &point.module->handle();
    });
  }
  for (std::thread& thread : threads) thread.join();
  return std::set<Lumo::TraceHandle*>(std::begin(seen), std::end(seen)).size();
}

// In a process that has traced nothing; the exit status.
int firstTraces() {
  std::string names = "before:" + handleNames() + "; then:";
  bool once = handlesOfFirstTraces<TypesTrace::freeRequestMemory>() == 1;
  names += handleNames() + ";";
  once = handlesOfFirstTraces<ClientTrace::noMoreCmds>() == 1 && once;
  names += handleNames() + ";";
  once = handlesOfFirstTraces<ManagerTrace::wakeClient>() == 1 && once;
  names += handleNames() + ";";
  std::fprintf(stderr, "%s\n", names.c_str());
  return once ? 0 : 1;
}

// Which levels of a module are on.
template <const Twine::Module& module>
std::string levelsOn() {
  std::string levels = " " + module.handle().name().stdString() + ":";
  for (unsigned level = 0; level < Lumo::TraceFacility::levelCount; ++level) {
    if (module.handle().enabled(level)) levels += ' ' + std::to_string(level);
  }
  return levels;
}

}  // namespace

TEST(TraceHandles, AreSilentWithoutASetting) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const support::Environment environment("LUMO_TRACE", std::nullopt);
  EXPECT_EXIT(
      {
        const std::string on = levelsOn<TypesTrace::module>() + levelsOn<ClientTrace::module>() +
                               levelsOn<ManagerTrace::module>() + ";";
        std::fprintf(stderr, "on:%s\n", on.c_str());
        std::_Exit(0);
      },
      testing::ExitedWithCode(0), "on: GrpcTypes: GrpcClient: NorvConnectionsMgr:;");
}

TEST(TraceHandles, AreMadeOnceAtTheFirstTraceOfTheirModule) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";  // a process of its own, started anew
  EXPECT_EXIT(std::_Exit(firstTraces()), testing::ExitedWithCode(0),
              "before:; then: GrpcTypes; GrpcTypes GrpcClient; "
              "GrpcTypes GrpcClient NorvConnectionsMgr;");
}
