#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Agent.h>
#include <support/FakeDaemon.h>

#include <Lumo/ActivityLockAnchor.h>
#include <Norv/Agent/Kit.h>

namespace agent_test {

using namespace std::chrono_literals;
using Norv::Agent::CommandReport;
using Norv::Agent::FailurePolicy;
using Norv::Agent::Outcome;
using Norv::Agent::Status;
using support::FakeDaemon;
using TrackedCmd = Norv::Agent::Tracked<support::LoggedCmd>;

// One whose handler raises the flag.
class RaisingCmd : public support::LoggedCmd {
 public:
  template <class... Args>
  explicit RaisingCmd(Lumo::Ptr<Norv::GrpcErrorHandlingStatus> status, Args&&... args)
      : LoggedCmd(std::forward<Args>(args)...), status_(std::move(status)) {}
  void processResponse(google::protobuf::Message* response) override {
    LoggedCmd::processResponse(response);
    status_->errorOccuredIs(true);
  }

 private:
  const Lumo::Ptr<Norv::GrpcErrorHandlingStatus> status_;
};

// A kit around the manager of a small agent, one fake daemon, and a clock that the test moves.
struct KitFixture : testing::Test {
  // Ends what a test has left under way, so that nothing reaches the fixture afterwards.
  void TearDown() override {
    daemon.release();
    if (agent.manager && agent.manager->client()) {
      EXPECT_TRUE(ticking([&] { return kit.stopped() || kit.ledger()->openAnnounced() == 0; }));
    }
  }

  void connect() {
    Lumo::ActivityLockAnchor activity;
    agent.connect(daemon.port());
    kit.managerIs(agent.manager);
  }
  Lumo::Ptr<TrackedCmd> command(Norv::GrpcRequestType type = Norv::getVersion) {
    return Lumo::allocate<TrackedCmd>(kit.ledger(), agent.log, agent.made++,
                                      support::newRequest(type).release(), type);
  }
  void enqueue(int count = 1, const std::string& queue = "main",
               Norv::GrpcRequestType type = Norv::getVersion) {
    Lumo::ActivityLockAnchor activity;
    for (int i = 0; i < count; ++i) agent.queue(queue)->cmdBatchEnq(command(type));
  }
  // One more, with a pointer to it that its producer keeps.
  Lumo::Ptr<TrackedCmd> enqueueKept() {
    Lumo::ActivityLockAnchor activity;
    Lumo::Ptr<TrackedCmd> kept = command();
    agent.queue("main")->cmdBatchEnq(kept);
    return kept;
  }
  void announce(const std::string& queue = "main") {
    Lumo::ActivityLockAnchor activity;
    agent.announce(queue);
  }
  // Waits for an effect, ticking as an agent's clock does.
  bool ticking(const std::function<bool()>& condition) {
    return support::eventually(condition, [this] { tick(); });
  }
  void tick() {
    Lumo::ActivityLockAnchor activity;
    kit.tick();
  }
  Status status() {
    Lumo::ActivityLockAnchor activity;
    return kit.status();
  }
  void advance(std::chrono::nanoseconds duration) { now += duration.count(); }

  // The nth call from 0 is answered so; all others succeed.
  void answerNth(std::size_t nth, const FakeDaemon::Answer& answer) {
    std::vector<FakeDaemon::Answer> answers(nth + 1);
    answers[nth] = answer;
    answersAre(std::move(answers));
  }
  // The first calls are answered so, and all others as the last says.
  void answersAre(std::vector<FakeDaemon::Answer> answers, const FakeDaemon::Answer& rest = {}) {
    daemon.handlerIs(
        [answers = std::move(answers), rest, count = std::make_shared<std::atomic<std::size_t>>(0)](
            Norv::GrpcRequestType, const auto&, auto*) {
          const std::size_t nth = (*count)++;
          return nth < answers.size() ? answers[nth] : rest;
        });
  }

  // How the commands ended, in the order of their ends.
  std::vector<std::pair<U64, Outcome>> ends() const {
    Lumo::LockAnchor anchor(&told->lock);
    std::vector<std::pair<U64, Outcome>> ends;
    for (const CommandReport& report : told->reports) {
      ends.emplace_back(report.id, report.outcome);
    }
    return ends;
  }

  struct Told {
    Lumo::Lock lock;
    std::vector<CommandReport> reports;
  };

  FakeDaemon daemon;
  support::Agent agent;
  std::atomic<Norv::Agent::Time::rep> now{std::chrono::nanoseconds(1s).count()};
  Norv::Agent::Kit kit{agent.config, agent.pending, agent.status,
                       [this] { return Norv::Agent::Time(Norv::Agent::Time::duration(now)); }};
  std::shared_ptr<Told> told = [this] {
    auto made = std::make_shared<Told>();
    kit.ledger()->listenerIs([made](const CommandReport& report) {
      Lumo::LockAnchor anchor(&made->lock);
      made->reports.push_back(report);
    });
    return made;
  }();
};

}  // namespace agent_test
