#include "Session.h"

#include <signal.h>

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

// Of the commands that are read and have not ended, and of the bytes of their lines.
constexpr std::size_t mostOpen = 2000;
constexpr std::size_t mostOpenBytes = 32 << 20;
// Of those that wait for an announcement in a stream.
constexpr std::size_t mostWaiting = 100000;
constexpr std::size_t mostWaitingBytes = 256 << 20;
// In one turn of the loop.
constexpr std::size_t stepsAtOnce = 200;
// So many commands of a file are a batch, whenever they are announced.
constexpr std::size_t manyUnannounced = 1000;

std::atomic<int> signalled{0};

}  // namespace

// Calls the kit from the loop's clock.
class Session::Ticker : public Lumo::Clock::NotifieeConst {
 public:
  Ticker(Session* session) : NotifieeConst(session->loop_.clock()), session_(session) {}
  void onTime() override {
    session_->kit_.tick();
    session_->feed();
    session_->listener_.progress(session_->kit_);
    timeoutIs(notifier()->time() + tickSeconds);
  }

 private:
  Session* const session_;
};

// A command that keeps its response for the report. It shares the entry: an answer may still come
// when the books are closed and the session has forgotten the command.
class Session::Cmd : public Norv::GrpcCmd {
 public:
  // `entry` is null when the response is not wanted.
  Cmd(google::protobuf::Message* request, Norv::GrpcRequestType type, std::shared_ptr<Entry> entry)
      : GrpcCmd(request, type), entry_(std::move(entry)) {}
  void processResponse(google::protobuf::Message* response) override {
    if (!entry_) return;
    entry_->response.reset(response->New());
    entry_->response->CopyFrom(*response);
  }

 private:
  const std::shared_ptr<Entry> entry_;
};

// Passes on to standard error the lines the user asked for.
class Session::Trace : public Lumo::TraceSink {
 public:
  explicit Trace(const SessionOptions& options) : firstBatch_(options.traceFirstBatch) {
    if (!options.trace.empty()) Lumo::traceSettingIs(options.trace);
    managerWanted_ = Lumo::TraceFacility::levelEnabled({manager, 5});
    if (firstBatch_) Lumo::traceLevelIs(manager, 5, true);
    Lumo::traceSinkIs(this);
  }
  ~Trace() override { Lumo::traceSinkIs(nullptr); }

  void lineIs(const Lumo::TraceLine& line) override {
    if (line.facility == manager) {
      const bool wanted = managerWanted_ || firstBatch_;
      if (line.text == Norv::ManagerTrace::wakeClient.text) firstBatch_ = false;
      if (!wanted) return;
    }
    Lumo::writeToStandardError(line);
  }

 private:
  static constexpr const char* manager = "NorvConnectionsMgr";

  bool managerWanted_;
  std::atomic<bool> firstBatch_;
};

Session::Session(const SessionOptions& options, StepSource& source, SessionListener& listener)
    : options_(options),
      source_(source),
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
  kit_.ledger()->listenerIs([this](const CommandReport& report) {
    Lumo::LockAnchor anchor(&endedLock_);
    ended_.push_back(report);
  });
  // Not before all that may throw: its thread reads the source, which would be gone.
  feeder_.emplace(source, [this] { loop_.post([this] { feed(); }); });
}

Session::~Session() = default;

SessionEnd Session::run() {
  const auto start = std::chrono::steady_clock::now();
  loop_.post([this] {
    connect();
    feed();
  });
  const auto forEver = std::chrono::hours(24 * 365);
  const bool done = loop_.runUntil([this] { return finished(); },
                                   options_.timeout.count() ? options_.timeout : forEver);
  elapsed_ = std::chrono::steady_clock::now() - start;

  Lumo::ActivityLockAnchor activity;
  ticker_ = nullptr;
  const SessionEnd how = end(done);
  kit_.closeBooks(how == SessionEnd::timedOut ? "no answer before the time ran out"
                                              : "interrupted before an answer came");
  deliverAll();
  if (how != SessionEnd::complete) tellUnread();
  feeder_->stop();
  listener_.told();
  return how;
}

SessionEnd Session::end(bool done) const {
  if (outputLost_) return SessionEnd::outputLost;
  if (fed_ && kit_.ledger()->ended() == made_) {
    return complaint_.empty() ? SessionEnd::complete : SessionEnd::badInput;
  }
  if (fed_ && !complaint_.empty() && kit_.ledger()->openAnnounced() == 0) {
    return SessionEnd::badInput;
  }
  if (endingSignal()) return SessionEnd::interrupted;
  return done ? SessionEnd::stoppedByFailure : SessionEnd::timedOut;
}

void Session::connect() {
  const auto host = Norv::ConnectionConfig::ConnectionConfigIs(options_.port, options_.host);
  manager_ = Norv::ConnectionsMgr::ConnectionsMgrIs(host, config_, pending_, status_);
  kit_.managerIs(manager_);
  ticker_ = Lumo::allocate<Ticker>(this);
}

// A few steps, so that the loop goes on to look at time, signals and answers.
void Session::feed() {
  if (!manager_ || fed_ || kit_.stopped()) return;
  std::size_t taken = 0;
  for (; taken < stepsAtOnce && room(); ++taken) {
    std::optional<Step> step = feeder_->take();
    if (!step) break;
    if (step->announcement()) {
      announce(step->queue);
    } else {
      enqueue(std::move(*step));
    }
  }
  announceEarly();
  refuseTooMany();
  if (fed_) return;
  if (feeder_->ended()) {
    complaint_ = feeder_->complaint();
    if (complaint_.empty() || options_.stream) announceRest();
    fed_ = true;
  } else if (taken == stepsAtOnce) {
    loop_.post([this] { feed(); });
  }
}

// Whether one more may be under way. What waits for its announcement in a stream is not: nothing
// else could make room.
bool Session::room() const {
  std::size_t commands = entries_.size();
  std::size_t bytes = openBytes_;
  for (const Unannounced& one : unannounced_) {
    if (one.early) continue;
    commands -= one.commands;
    bytes -= one.bytes;
  }
  return commands < mostOpen && bytes < mostOpenBytes;
}

void Session::refuseTooMany() {
  std::size_t commands = 0;
  std::size_t bytes = 0;
  std::string queues;
  for (const Unannounced& one : unannounced_) {
    if (one.early) continue;
    commands += one.commands;
    bytes += one.bytes;
    queues += (queues.empty() ? "\"" : ", \"") + one.queue + "\"";
  }
  if (commands <= mostWaiting && bytes <= mostWaitingBytes) return;
  complaint_ = std::to_string(commands) + " commands wait for the announcement of their queues, " +
               queues + "; announce them more often, or leave \"queue\" out";
  fed_ = true;
}

void Session::enqueue(Step step) {
  if (!config_->cmdConfigGroupHas(step.queue)) {
    config_->cmdConfigGroupIs(Norv::CmdConfigGroup::CmdConfigGroupIs(step.queue));
  }
  ++made_;
  const auto entry = std::make_shared<Entry>();
  entries_[made_] = entry;
  entry->queue = step.queue;
  entry->type = step.type;
  entry->line = step.line;
  entry->bytes = step.bytes;
  openBytes_ += step.bytes;
  if (options_.keepRequests) {
    entry->request.reset(step.request->New());
    entry->request->CopyFrom(*step.request);
  }
  const Lumo::Ptr<Norv::GrpcCmd> cmd = Lumo::allocate<Norv::Agent::Tracked<Cmd>>(
      kit_.ledger(), step.request.release(), step.type, options_.keepResponses ? entry : nullptr);
  config_->cmdConfigGroup(step.queue)->cmdBatchEnq(cmd);
  auto waiting = std::find_if(unannounced_.begin(), unannounced_.end(),
                              [&](const Unannounced& one) { return one.queue == step.queue; });
  if (waiting == unannounced_.end()) {
    const bool early = !options_.stream || !step.queueGiven;
    waiting = unannounced_.insert(waiting, {step.queue, 0, 0, early});
  }
  ++waiting->commands;
  waiting->bytes += step.bytes;
}

void Session::announce(const std::string& queue) {
  std::erase_if(unannounced_, [&](const Unannounced& one) { return one.queue == queue; });
  if (const auto group = config_->cmdConfigGroup(queue)) group->enqueueVersionInc(1);
}

// What need not wait for its announcement: all of a file, as its steps come in the order of
// sending, once there are many; of a stream, what names no queue.
void Session::announceEarly() {
  std::vector<std::string> early;
  for (const Unannounced& one : unannounced_) {
    if (one.early && (options_.stream || one.commands >= manyUnannounced || !room())) {
      early.push_back(one.queue);
    }
  }
  for (const std::string& queue : early) announce(queue);
}

void Session::announceRest() {
  while (!unannounced_.empty()) announce(std::string(unannounced_.front().queue));
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
  const U64 before = nextSeq_;
  while (!toTell_.empty() && toTell_.begin()->first == nextSeq_) {
    tell(toTell_.extract(toTell_.begin()).mapped());
    ++nextSeq_;
  }
  if (nextSeq_ == before) return;
  if (!listener_.told()) outputLost_ = true;
  if (!fed_) loop_.post([this] { feed(); });
}

// With the books closed nothing is missing any more; what was never announced comes last.
void Session::deliverAll() {
  deliver();
  for (const auto& [seq, report] : toTell_) tell(report);
  for (const auto& [id, report] : toTellLast_) tell(report);
}

void Session::tell(const CommandReport& report) {
  const auto entry = entries_.extract(report.id);
  openBytes_ -= entry.mapped()->bytes;
  listener_.ended(report, *entry.mapped());
}

// The commands that the session did not come to.
void Session::tellUnread() {
  if (!source_.bounded() || !listener_.wantsUnread()) return;
  source_.skipRequests();
  while (const std::optional<Step> step = feeder_->takeNext()) {
    if (step->announcement()) continue;
    CommandReport report;
    report.type = step->type;
    Entry entry;
    entry.queue = step->queue;
    entry.type = step->type;
    entry.line = step->line;
    listener_.ended(report, entry);
    if (outputLost_ || !listener_.told()) return;
  }
}

bool Session::finished() {
  deliver();
  if (outputLost_ || endingSignal() || (fed_ && kit_.ledger()->ended() == made_)) return true;
  if (fed_ && !complaint_.empty() && kit_.ledger()->openAnnounced() == 0) return true;
  return kit_.stopped() &&
         options_.failurePolicy.action == Norv::Agent::FailurePolicy::Action::reportAndStop;
}

void endOnSignals() {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;
    action.sa_handler = [](int caught) { signalled = caught; };
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    sigaction(number, &action, nullptr);
  }
}

int endingSignal() {
  return signalled;
}

}  // namespace Norvctl
