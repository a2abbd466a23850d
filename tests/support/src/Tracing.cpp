// Linked into a test program, it runs every test with the trace sinks on that the environment
// variable NORV_TEST_TRACING names: text, ring, coverage, or several of them.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include <Lumo/Trace.h>
#include <Skein/TraceHandle.h>

namespace {

// Never destroyed: workers of the tests trace until the process ends.
Skein::TraceHandle* openRing() {
  const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("norv-test-" + std::to_string(::getpid()));
  auto* const handle = new Skein::TraceHandle(path);
  std::filesystem::remove(path);
  return handle;
}

class Tracing : public testing::EmptyTestEventListener {
 public:
  explicit Tracing(const std::string& sinks)
      : text_(sinks.find("text") != sinks.npos),
        coverage_(sinks.find("coverage") != sinks.npos),
        ring_(sinks.find("ring") != sinks.npos ? openRing() : nullptr) {}

  // A test may have turned something off for itself.
  void OnTestStart(const testing::TestInfo&) override {
    static auto* const stream = new std::ostringstream;
    Lumo::traceSettingIs(text_ ? "*/*" : "");
    Lumo::coverageStream_ = coverage_ ? stream : nullptr;
    Skein::defaultSkeinHandleIs(ring_);
  }

 private:
  const bool text_;
  const bool coverage_;
  Skein::TraceHandle* const ring_;
};

[[maybe_unused]] const bool listening = [] {
  if (const char* sinks = std::getenv("NORV_TEST_TRACING")) {
    testing::UnitTest::GetInstance()->listeners().Append(new Tracing(sinks));
  }
  return true;
}();

}  // namespace
