#include "Session.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <limits>

#include <Lumo/Trace.h>
#include <Norv/ManagerTrace.h>

namespace Norvctl {

namespace {

using namespace std::chrono_literals;
using Norv::Agent::CommandReport;

constexpr double tickSeconds = 0.005;

std::atomic<bool> interrupted{false};

}  // namespace

// Calls the kit from the loop's clock.
class Session::Ticker : public Lumo::Clock::NotifieeConst {
 public:
  Ticker(Session* session) : NotifieeConst(session->loop_.clock()), session_(session) {}
  void onTime() override {
    session_->kit_.tick();
    session_->listener_.progress(session_->kit_);
    timeoutIs(notifier()->time() + tickSeconds);
  }

 private:
  Session* const session_;
};

// A command that keeps its response for the report.
class Session::Cmd : public Norv::GrpcCmd {
 public:
  Cmd(google::protobuf::Message* request, Norv::GrpcRequestType type, Entry* entry)
      : GrpcCmd(request, type), entry_(entry) {}
  void processResponse(google::protobuf::Message* response) override {
    entry_->response.reset(response->New());
    entry_->response->CopyFrom(*response);
  }

 private:
  Entry* const entry_;
};

// Passes on to standard error the lines the user asked for, and keeps the text of the client's last
// failure, which nothing but its trace tells.
class Session::Trace : public Lumo::TraceSink {
 public:
  explicit Trace(const SessionOptions& options) : firstBatch_(options.traceFirstBatch) {
    if (!options.trace.empty()) Lumo::traceSettingIs(options.trace);
    failuresWanted_ = Lumo::TraceFacility::levelEnabled({client, 0});
    managerWanted_ = Lumo::TraceFacility::levelEnabled({manager, 5});
    Lumo::traceLevelIs(client, 0, true);
    if (firstBatch_) Lumo::traceLevelIs(manager, 5, true);
    Lumo::traceSinkIs(this);
  }
  ~Trace() override { Lumo::traceSinkIs(nullptr); }

  void lineIs(const Lumo::TraceLine& line) override {
    bool wanted = true;
    if (line.facility == client && line.level == 0) {
      Lumo::LockAnchor anchor(&lock_);
      lastFailure_ = line.text;
      wanted = failuresWanted_;
    } else if (line.facility == manager) {
      wanted = managerWanted_ || firstBatch_;
      if (line.text == Norv::ManagerTrace::wakeClient.text) firstBatch_ = false;
    }
    if (!wanted) return;
    std::string out;
    Lumo::appendTraceLine(out, line);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, out.data(), out.size());
  }

  std::string lastFailure() const {
    Lumo::LockAnchor anchor(&lock_);
    return lastFailure_;
  }

 private:
  static constexpr const char* client = "GrpcClient";
  static constexpr const char* manager = "NorvConnectionsMgr";

  mutable Lumo::Lock lock_;
  std::string lastFailure_ LUMO_GUARDED_BY(lock_);
  bool failuresWanted_;
  bool managerWanted_;
  std::atomic<bool> firstBatch_;
};

Session::Session(const SessionOptions& options, const std::vector<Step>& steps,
                 SessionListener& listener)
    : options_(options),
      steps_(steps),
      listener_(listener),
      config_(Norv::GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("norvctl")),
      pending_(Norv::CmdGroup::CmdGroupIs()),
      status_(Norv::GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs()),
      trace_(std::make_unique<Trace>(options)),
      kit_(config_, pending_, status_) {
  if (!options.flightRecorder.empty()) {
    kit_.flightRecorderIs(options.flightRecorder, options.flightRecorderSize,
                          options.flightRecorderCopies);
  }
  kit_.failurePolicyIs(options.failurePolicy);
  kit_.failureTextIs([this] { return trace_->lastFailure(); });
  kit_.ledger()->listenerIs([this](const CommandReport& report) {
    Lumo::LockAnchor anchor(&endedLock_);
    ended_.push_back(report);
  });
  entries_.reserve(steps.size());
}

Session::~Session() = default;

SessionEnd Session::run() {
  const auto start = std::chrono::steady_clock::now();
  loop_.post([this] {
    connect();
    feed();
    for (const std::string& queue : std::vector(unannounced_)) announce(queue);
  });
  const auto forEver = std::chrono::hours(24 * 365);
  const bool done = loop_.runUntil([this] { return finished(); },
                                   options_.timeout.count() ? options_.timeout : forEver);
  elapsed_ = std::chrono::steady_clock::now() - start;

  Lumo::ActivityLockAnchor activity;
  ticker_ = nullptr;
  const bool complete = kit_.ledger()->ended() == entries_.size();
  kit_.closeBooks(interrupted ? "interrupted before an answer came"
                              : "no answer before the time ran out");
  deliverAll();
  if (complete) return SessionEnd::complete;
  if (interrupted) return SessionEnd::interrupted;
  return done ? SessionEnd::stoppedByFailure : SessionEnd::timedOut;
}

void Session::connect() {
  const auto host = Norv::ConnectionConfig::ConnectionConfigIs(options_.port, options_.host);
  manager_ = Norv::ConnectionsMgr::ConnectionsMgrIs(host, config_, pending_, status_);
  kit_.managerIs(manager_);
  ticker_ = Lumo::allocate<Ticker>(this);
}

void Session::feed() {
  for (const Step& step : steps_) {
    if (step.announcement()) {
      announce(step.queue);
    } else {
      enqueue(step);
    }
  }
}

void Session::enqueue(const Step& step) {
  if (!config_->cmdConfigGroupHas(step.queue)) {
    config_->cmdConfigGroupIs(Norv::CmdConfigGroup::CmdConfigGroupIs(step.queue));
  }
  entries_.push_back({&step, nullptr});
  const Lumo::Ptr<Norv::GrpcCmd> cmd = Lumo::allocate<Norv::Agent::Tracked<Cmd>>(
      kit_.ledger(), step.request->New(), step.type, &entries_.back());
  cmd->request()->CopyFrom(*step.request);
  config_->cmdConfigGroup(step.queue)->cmdBatchEnq(cmd);
  if (std::find(unannounced_.begin(), unannounced_.end(), step.queue) == unannounced_.end()) {
    unannounced_.push_back(step.queue);
  }
}

void Session::announce(const std::string& queue) {
  std::erase(unannounced_, queue);
  if (const auto group = config_->cmdConfigGroup(queue)) group->enqueueVersionInc(1);
}

// Tells of what has ended, in the order of announcement: after a failure a batch may be discarded
// while commands announced before it still wait.
void Session::deliver() {
  {
    Lumo::LockAnchor anchor(&endedLock_);
    for (CommandReport& report : ended_) {
      const bool announced = report.seq != 0;
      (announced ? toTell_ : toTellLast_).emplace(announced ? report.seq : report.id, report);
    }
    ended_.clear();
  }
  while (!toTell_.empty() && toTell_.begin()->first == nextSeq_) {
    tell(toTell_.extract(toTell_.begin()).mapped());
    ++nextSeq_;
  }
}

// With the books closed nothing is missing any more; what was never announced comes last.
void Session::deliverAll() {
  deliver();
  for (const auto& [seq, report] : toTell_) tell(report);
  for (const auto& [id, report] : toTellLast_) tell(report);
}

void Session::tell(const CommandReport& report) {
  listener_.ended(report, entries_[report.id - 1]);
}

bool Session::finished() {
  deliver();
  if (interrupted || kit_.ledger()->ended() == entries_.size()) return true;
  return kit_.stopped() &&
         options_.failurePolicy.action == Norv::Agent::FailurePolicy::Action::reportAndStop;
}

void interruptOnSigint() {
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted = true; };
  action.sa_flags = SA_RESETHAND;
  sigaction(SIGINT, &action, nullptr);
}

}  // namespace Norvctl
