#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <protocol/Requests.h>
#include <run/Session.h>
#include <support/Eventually.h>
#include <support/FakeDaemon.h>
#include <support/TraceRecorder.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include <Norv/ClientTrace.h>

namespace {

using namespace std::chrono_literals;
using namespace Norvctl;
using Norv::Agent::CommandReport;
using Norv::Agent::Outcome;
using support::FakeDaemon;
using testing::Each;
using testing::ElementsAre;

Step getVersion(const std::string& queue) {
  Step step;
  step.queue = queue;
  step.queueGiven = true;
  step.type = Norv::getVersion;
  step.request = newRequest(Norv::getVersion);
  return step;
}

// So many commands of one queue, read on the feeder's thread.
class Commands : public StepSource {
 public:
  explicit Commands(std::size_t count) : count_(count) {}
  std::optional<Step> next() override {
    if (made_ == stopAt) {
      waiting = true;
      while (waiting) std::this_thread::yield();
    }
    if (made_ == count_) {
      reader = ::gettid();
      return std::nullopt;
    }
    ++made_;
    return getVersion("waits");
  }
  bool bounded() const override { return false; }

  std::size_t stopAt = std::string::npos;  // before this one, until `waiting` is taken back
  std::atomic<bool> waiting{false};
  std::atomic<pid_t> reader{0};  // once all are read: the thread that read them

 private:
  const std::size_t count_;
  std::size_t made_ = 0;
};

class Told : public SessionListener {
 public:
  void ended(const CommandReport& report, const Entry& entry) override {
    outcomes.push_back(report.outcome);
    responses += entry.response != nullptr;
  }
  bool told() override { return true; }
  bool wantsUnread() const override { return false; }
  void progress(const Norv::Agent::Kit&) override {
    if (onProgress) onProgress();
  }

  std::vector<Outcome> outcomes;
  int responses = 0;
  std::function<void()> onProgress;
};

// A session stays, as a connected manager cannot be destroyed, and so does all it works with.
template <class T, class... Args>
T& staying(Args&&... args) {
  static auto& all = *new std::vector<T*>;  // at the end of the process, too
  all.push_back(new T(std::forward<Args>(args)...));
  return *all.back();
}

SessionOptions optionsFor(unsigned short port) {
  SessionOptions options;
  options.host = "127.0.0.1";
  options.port = port;
  options.keepResponses = true;
  options.stream = true;
  return options;
}

}  // namespace

TEST(Session, RefusesWhatWaitsTooLongThoughTheInputEndsThere) {
  constexpr std::size_t most = 100000;
  auto& daemon = staying<FakeDaemon>();
  auto& source = staying<Commands>(most + 1);
  source.stopAt = most;
  auto& told = staying<Told>();
  auto& session = staying<Session>(optionsFor(daemon.port()), source, told);
  // Once all but the last have been taken, that and the end of the input are to come together.
  told.onProgress = [&] {
    if (session.commands() != most) return;
    source.waiting = false;
    const auto ended = [&] {
      return source.reader != 0 &&
             !std::filesystem::exists("/proc/self/task/" + std::to_string(source.reader));
    };
    EXPECT_TRUE(support::eventually(ended));
  };
  EXPECT_EQ(session.run(), SessionEnd::badInput);
  EXPECT_EQ(session.complaint(),
            "100001 commands wait for the announcement of their queues, \"waits\"; announce them "
            "more often, or leave \"queue\" out");
  EXPECT_TRUE(daemon.calls().empty());
  EXPECT_EQ(told.outcomes.size(), most + 1);
  EXPECT_THAT(told.outcomes, Each(Outcome::dropped));
}

// What the worker does when the session has ended, and before the process does.
class AnswerAfterTheEnd : public testing::TestWithParam<FakeDaemon::Answer> {};

TEST_P(AnswerAfterTheEnd, IsNobodysAnyMore) {
  const auto folder = std::filesystem::temp_directory_path();
  const std::string recording = folder / ("session-" + std::to_string(::getpid()) + ".skein");
  auto& daemon = staying<FakeDaemon>();
  daemon.handlerIs([answer = GetParam()](auto, const auto&, auto*) { return answer; });
  daemon.hold();
  auto& source = staying<Commands>(3);
  auto& told = staying<Told>();
  SessionOptions options = optionsFor(daemon.port());
  options.timeout = 1s;
  options.flightRecorder = recording;
  auto& session = staying<Session>(options, source, told);
  told.onProgress = [&] {
    if (daemon.calls().size() == 1) kill(getpid(), SIGTERM);
  };
  endOnSignals();
  EXPECT_EQ(session.run(), SessionEnd::interrupted);
  EXPECT_THAT(told.outcomes, ElementsAre(Outcome::failed, Outcome::dropped, Outcome::dropped));

  // The worker is through with the answer when it finds nothing else to send.
  support::TraceRecorder trace("GrpcClient/*");
  daemon.release();
  const std::string idle = Norv::ClientTrace::noMoreCmds.text;
  EXPECT_TRUE(support::eventually([&] { return trace.count(idle) == 1; }));
  EXPECT_EQ(told.outcomes.size(), 3u);
  EXPECT_EQ(told.responses, 0);
  EXPECT_EQ(daemon.calls().size(), 1u);
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().string().starts_with(recording)) std::filesystem::remove(entry.path());
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, AnswerAfterTheEnd,
                         testing::Values(FakeDaemon::Answer{},
                                         FakeDaemon::Answer{13, "too late", ""},
                                         FakeDaemon::Answer{0, "", "\x0a\x7f"}),
                         [](const auto& kind) {
                           return kind.param.code                  ? "Failure"
                                  : kind.param.rawResponse.empty() ? "Success"
                                                                   : "Garbage";
                         });
