#include "Agent.h"

#include <systemd/sd-daemon.h>

#include <algorithm>

#include "Signals.h"
#include "Values.h"
#include "agent/ObjectNames.h"
#include "text/Text.h"

namespace Norvd {

using namespace std::chrono_literals;
using Norv::Agent::Outcome;
using Norv::State::Change;
using Norv::State::Execution;
using Norv::State::LiveSwitch;
using Norv::State::Object;
using Norv::State::Plan;
using Norvctl::deathKey;

namespace {

constexpr double busyTick = 0.005, idleTick = 0.05;  // seconds
constexpr auto betweenLooks = 100ms;
// At the end: for what is under way, and for what lets workers run again beside it.
constexpr auto longestLeave = 200ms, longestWaking = 200ms;

// The first objects that are going to be changed, and how many more there are.
std::string namesOf(const Execution& execution) {
  constexpr std::size_t shown = 5;
  const Plan& plan = execution.plan();
  std::set<std::size_t> changes;
  for (std::size_t i = 0; i < plan.steps.size(); ++i) {
    if (execution.mayGo(i)) changes.insert(plan.steps[i].change);
  }
  changes.erase(Norv::State::Step::none);
  std::vector<std::string> names;
  names.reserve(changes.size());
  for (const std::size_t change : changes) names.push_back(text(plan.changes[change].object));
  if (names.size() > shown + 1) {
    const std::size_t more = names.size() - shown;
    names.resize(shown);
    names.push_back(std::to_string(more) + " more");
  }
  return Norvctl::listed(names);
}

// What a change is for, where it has no details.
const char* reasonOf(Change::Action action) {
  switch (action) {
    case Change::Action::create:
      return "is not there";
    case Change::Action::remove:
      return "is not wanted";
    default:
      return "";
  }
}

}  // namespace

// Drives the agent from the loop's clock.
class Agent::Ticker : public Lumo::Clock::NotifieeConst {
 public:
  explicit Ticker(Agent* agent) : NotifieeConst(agent->loop_.clock()), agent_(agent) {}
  void onTime() override {
    agent_->tick();
    timeoutIs(notifier()->time() + (agent_->road_.open() != 0 ? busyTick : idleTick));
  }

 private:
  Agent* const agent_;
};

Agent::Agent(const Options& options, Memory& memory, UnderWay& underWay, Board& board,
             Metrics& metrics)
    : options_(options),
      memory_(memory),
      underWay_(underWay),
      metrics_(metrics),
      road_(underWay, [this] { loop_.post([this] { takeEnded(); }); }),
      reader_(
          options.host, options.port, options.stuckAfter,
          [this](const Reading& reading) { loop_.post([this, reading] { onReading(reading); }); }),
      documents_(options_, memory),
      holds_(options.interval),
      telling_(options_, memory, underWay, road_, documents_, board) {}

Agent::~Agent() = default;

void Agent::run() {
  installSignals(underWay_);
  if (memory_.kept()) {
    memory_.attempt("underway", [&] { underWay_.fileIs(memory_.file("underway")); });
    takeDeath();
    openRecorder();
    memory_.attempt("json", [&] {
      std::string said;
      record_ = Norv::State::Record::load(memory_.file("json"), &said);
      if (!said.empty()) log(Level::warning, "memory: " + said);
    });
  }
  ++memory_.starts;
  memory_.save();
  log(Level::notice, "start: keeping the switch at " + options_.address() + " as wanted, start " +
                         std::to_string(memory_.starts));
  sd_notify(0, "READY=1");
  loop_.post([this] { ticker_ = Lumo::allocate<Ticker>(this); });
  loop_.run();
  leave();
}

void Agent::openRecorder() {
  memory_.attempt("trace", [&] {
    // With the one that this process may leave there are as many as one process makes at most.
    memory_.removeOldRecordings("trace", Norv::Agent::FlightRecorder::usualCopies - 1);
    recorder_ = std::make_unique<Norv::Agent::FlightRecorder>(memory_.file("trace"));
  });
}

// --- what happens -------------------------------------------------------------------------------

void Agent::tick() {
  if (road_.connected()) road_.kit().tick();
  if (endingSignal() != 0) {
    goToTheEnd();
    return;
  }
  takeHangUp();
  takeEnded();
  watchConnection();
  takeRetries();
  if (documents_.stirred()) lookAgain_ = true;
  if (lookAgain_ && carrying_) carrying_->stop(road_);
  if (carrying_) {
    carrying_->feed(road_);
    if (!looking_ && carrying_->finished(road_)) look();
  } else if (!looking_ && (lookAgain_ || now() >= nextLook_)) {
    look();
  }
  if (telling_.due()) tell();
}

void Agent::takeHangUp() {
  if (!tookHangUp()) return;
  log(Level::notice, "signal: reading the wanted document again");
  documents_.readAgain();
  lookAgain_ = true;
}

// The library has no deadline and does not connect again.
void Agent::watchConnection() {
  if (!road_.connected()) return;
  if (road_.kit().stopped()) {
    settleEnded();
    die("the connection's error flag is up");
  }
  // Each has its time from when it is its turn, also one that the worker never comes to take.
  const auto oldest = road_.kit().ledger()->oldestOpen();
  if (oldest && now() - oldest->started > options_.stuckAfter) {
    underWay_.died();
    die(whatIs(*oldest, road_, carrying_.get()) + " is without an answer for " +
        duration(now() - oldest->started));
  }
  // One that was killed while nothing was under way.
  if (!looking_ && !carrying_ && reader_.lost()) lookAgain_ = true;
}

// What `norvctl retry` has asked for.
void Agent::takeRetries() {
  if (!picture_) return;  // it is not known yet what there is
  for (const std::string& words : memory_.takeRetries()) {
    bool known = false;
    for (const Object& object : Norvctl::objectsMeant(words)) {
      const bool waited = holds_.lift(object);
      const bool died = memory_.deaths.erase(deathKey(object)) != 0;
      known = known || waited || died || picture_->objects.contains(object);
    }
    memory_.save();
    if (known) {
      log(Level::notice, "retry: " + words + " is tried again");
    } else {
      log(Level::warning, "retry: no object is called " + words);
    }
    lookAgain_ = true;
  }
}

void Agent::look() {
  looking_ = true;
  lookAgain_ = false;
  looked_ = now();
  reader_.start();
}

void Agent::onReading(const Reading& reading) {
  looking_ = false;
  if (!reading.live) {
    onSilence(reading.error);
    return;
  }
  if (!silence_.empty()) log(Level::notice, "daemon: answers at " + options_.address());
  silence_.clear();
  if (!memory_.lost.empty()) {
    memory_.lost.clear();
    memory_.save();
  }
  // A daemon that was started anew takes what the last one refused, and has changed nothing back.
  if (reading.fresh) holds_.forget();
  nextLook_ = looked_ + options_.interval;
  writeAgain();
  if (!road_.connected()) road_.connect(options_.host, options_.port);
  try {
    if (carrying_) concludeCarrying(*reading.live);
    decide(reading);
  } catch (const std::exception& error) {
    // To begin again would come to the same.
    carrying_ = nullptr;
    refusedPlan_ = std::string("norvd fails to compare: ") + error.what();
    log(Level::error, "state: " + refusedPlan_);
  }
  tell();
}

// What there was no room for, or no right to, may be written now.
void Agent::writeAgain() {
  const auto troubles = memory_.troubles();  // a copy: it changes
  if (troubles.contains("norvd")) memory_.save();
  if (troubles.contains("wanted.yaml")) documents_.keep();
  if (troubles.contains("json")) saveRecord();
  if (troubles.contains("trace") && !recorder_) openRecorder();
  if (troubles.contains("underway") && !carrying_) {
    memory_.attempt("underway", [&] {
      underWay_.fileIs(memory_.file("underway"));
      underWay_.noteIs("");
      underWay_.verify(memory_.file("underway"));
    });
  }
}

void Agent::saveRecord() {
  if (memory_.kept()) memory_.attempt("json", [&] { record_.save(memory_.file("json")); });
}

void Agent::tell() {
  telling_.tell({picture_, carrying_.get(), silence_, refusedPlan_});
}

void Agent::onSilence(const std::string& error) {
  if (road_.connected()) die("the daemon does not answer any more: " + error);
  if (silence_.empty()) {
    log(Level::warning, "daemon: no answer at " + options_.address() + " (" + error +
                            "); trying again until there is one");
  }
  silence_ = error;
  nextLook_ = now() + betweenLooks;
}

// --- carrying out -------------------------------------------------------------------------------

void Agent::decide(const Reading& reading) {
  const auto live = std::make_shared<LiveSwitch>(*reading.live);
  record_.complement(*live);
  refusedPlan_.clear();
  std::shared_ptr<const Plan> plan = documents_.refresh(*live);
  const auto* document = documents_.inForce();
  std::set<std::size_t> waiting;
  if (document != nullptr && !plan) {
    const auto missing = checkReferences(*document, live.get(), options_.prune);
    if (missing.empty()) {
      plan = std::make_shared<Plan>(makePlan(*live, document->wanted, documents_.planOptions()));
      refusedPlan_ = documents_.deletesTooMuch(*plan, document->wanted);
    } else {
      refusedPlan_ = missing.front().text;
    }
  }
  if (plan) {
    std::set<Object> differing;
    for (const Change& change : plan->changes) differing.insert(change.object);
    forgetDeaths(differing);
    values_ = valuesOf(document->wanted, differing);
    for (std::size_t i = 0; i < plan->changes.size(); ++i) {
      bool waits = false;
      if (held(plan->changes[i].object, &waits) && waits) waiting.insert(i);
    }
    holds_.seen(differing, now());
    if (!options_.observe && refusedPlan_.empty()) carryOut(plan, document->wanted, waiting);
  }
  picture_ = picture(reading, live, plan, waiting);
}

void Agent::carryOut(const std::shared_ptr<const Plan>& plan, const Norv::State::Switch& wanted,
                     const std::set<std::size_t>& held) {
  std::vector<std::string> values;
  for (const Change& change : plan->changes) values.push_back(valueOf(change.object));
  auto carrying = std::make_unique<Carrying>(plan, wanted, held, std::move(values));
  if (!carrying->anythingToDo()) return;
  record_.begin(carrying->execution(), wanted);
  saveRecord();
  log(Level::info, "apply: " + namesOf(carrying->execution()) +
                       "; commands: " + std::to_string(carrying->total()));
  carrying_ = std::move(carrying);
  carrying_->feed(road_);
}

// What is right now, or not wanted any more, is not under what the daemon dies next in a row.
void Agent::forgetDeaths(const std::set<Object>& differing) {
  if (memory_.deaths.empty()) return;
  std::set<std::string> open;
  for (const Object& object : differing) open.insert(deathKey(object));
  const auto over = [&](const auto& one) { return !open.contains(one.first); };
  if (std::erase_if(memory_.deaths, over) != 0) memory_.save();
}

void Agent::takeEnded() {
  settleEnded();
  if (carrying_) carrying_->feed(road_);
  if (carrying_ && !looking_ && carrying_->finished(road_)) look();
}

void Agent::settleEnded() {
  for (const Road::Ended& end : road_.takeEnded()) {
    metrics_.commandEnded(end.report);
    if (!carrying_) continue;
    if (end.report.outcome == Outcome::failed) {
      die(carrying_->what(end.step) + " failed: " + end.text);
    }
    if (end.how == Norv::State::StepEnd::refused) {
      const std::string line = carrying_->what(end.step) + " was refused: " + end.text;
      log(Level::warning, "refused: " + line);
      memory_.failureIs(line);
    }
    if (end.report.outcome == Outcome::undecodable) {
      log(Level::info, "unclear: the reply to " + carrying_->what(end.step) +
                           " does not decode; looking what it did");
    }
    carrying_->ended(end);
  }
}

// With the switch read again: what became of each object.
void Agent::concludeCarrying(const LiveSwitch& bare) {
  const Execution& execution = carrying_->execution();
  const Plan& plan = execution.plan();
  using StateKind = Execution::State::Kind;
  const auto states =
      Norv::State::Record::settled(execution, bare, carrying_->wanted(), documents_.planOptions());
  std::size_t done = 0;
  for (std::size_t i = 0; i < states.size(); ++i) {
    const Object& object = plan.changes[i].object;
    switch (states[i].kind) {
      case StateKind::done:
        ++done;
        holds_.done(object, valueOf(object), now());
        memory_.deaths.erase(deathKey(object));
        break;
      case StateKind::refused:
      case StateKind::unclear:
        holds_.refused(object, valueOf(object), states[i].text, now());
        break;
      case StateKind::notTried:
        break;
    }
  }
  record_.end(execution, states, carrying_->wanted(), bare);
  saveRecord();
  memory_.save();
  log(Level::info, "applied: " + std::to_string(done) + " of " + std::to_string(states.size()) +
                       " objects, " + std::to_string(carrying_->done()) + " commands");
  carrying_ = nullptr;
}

// --- who has to wait ----------------------------------------------------------------------------

std::string Agent::valueOf(const Object& object) const {
  const auto value = values_.find(object);
  return value == values_.end() ? "absent" : value->second;
}

std::optional<ObjectStatus> Agent::held(const Object& object, bool* waits) const {
  const std::string value = valueOf(object);
  const auto death = memory_.deaths.find(deathKey(object));
  if (death != memory_.deaths.end() && death->second.quarantined() &&
      death->second.value == value) {
    *waits = true;
    return ObjectStatus{Standing::quarantined,
                        "the daemon died " + std::to_string(death->second.times) + " times while " +
                            death->second.text,
                        death->second.last};
  }
  const auto hold = holds_.hold(object, value, now());
  if (!hold) return {};
  *waits = hold->waits;
  const bool refused = hold->why == Holds::Hold::Why::refused;
  return ObjectStatus{refused ? Standing::refused : Standing::contested, hold->text, hold->since};
}

std::shared_ptr<const Picture> Agent::picture(const Reading& reading,
                                              std::shared_ptr<LiveSwitch> live,
                                              std::shared_ptr<const Plan> plan,
                                              const std::set<std::size_t>& held) const {
  auto picture = std::make_shared<Picture>();
  picture->time = wallNow();
  picture->ports = reading.ports;
  picture->rates = ratesOf(picture_ ? picture_->live.get() : nullptr, *live);
  picture->live = std::move(live);
  picture->plan = plan;
  if (const auto* document = documents_.inForce()) {
    picture->wanted = std::make_shared<Norv::State::Switch>(document->wanted);
    for (const Object& object : objectsOf(document->wanted)) picture->objects[object];
  }
  if (plan) {
    const auto states = Execution(*plan, held).states();
    for (std::size_t i = 0; i < plan->changes.size(); ++i) {
      const Object& object = plan->changes[i].object;
      const Change& change = plan->changes[i];
      ObjectStatus status{options_.observe ? Standing::differs : Standing::pending,
                          change.details.empty() ? reasonOf(change.action) : change.details.front(),
                          picture->time};
      bool waits = false;
      if (const auto why = this->held(object, &waits)) {
        status = *why;
      } else if (!states[i].because.empty()) {
        status = {Standing::blocked, "by " + states[i].because, picture->time};
      }
      // It is so since it first was.
      if (picture_ && status.standing != Standing::refused) {
        const auto before = picture_->objects.find(object);
        if (before != picture_->objects.end() && before->second.standing == status.standing) {
          status.since = before->second.since;
        }
      }
      picture->objects[object] = status;
    }
  }
  for (const auto& [object, status] : picture->objects) {
    ++picture->counts[static_cast<std::size_t>(status.standing)];
  }
  return picture;
}

// --- the end ------------------------------------------------------------------------------------

// The last process noted what it died of.
void Agent::takeDeath() {
  const auto last = underWay_.takeDeath();
  if (!last) return;
  const auto note = parsedDeathNote(last->note);
  if (!note && !last->note.empty()) {
    log(Level::warning, "memory: " + memory_.file("underway") +
                            " cannot be used; what the last process died of is not known");
  }
  const std::string what = note ? note->command + " of " + note->object : "";
  if (last->aborted) {
    memory_.lost = "the process was aborted" + (note ? " while " + what : "");
    memory_.failureIs(memory_.lost);
    log(Level::error, "lost: " + memory_.lost + "; its recording is kept");
    memory_.attempt("trace", [&] { memory_.keepRecording("trace", memory_.lost); });
  }
  if (!note) return;
  Death& death = memory_.deaths[note->object];
  if (death.value != note->value) death.times = 0;
  death.value = note->value;
  ++death.times;
  death.last = wallNow();
  death.text = what;
  log(Level::warning, "death: " + std::to_string(death.times) + " of " +
                          std::to_string(Death::most) + " while " + what +
                          (death.quarantined() ? "; quarantined until it is wanted otherwise, or "
                                                 "`norvctl retry` is told"
                                               : ""));
}

void Agent::die(const std::string& why) {
  log(Level::error, "lost: " + why + "; ending, the next process goes on");
  memory_.failureIs(why);
  memory_.lost = why;
  memory_.save();
  wakeWorkers();
  if (recorder_) recorder_->freeze(road_.kit().ledger()->lastFailure(), why);
  sd_notify(0, ("STATUS=" + why).c_str());
  Norv::Agent::Kit::leaveProcess(endingSignal() != 0    ? ended
                                 : telling_.wasInSync() ? again
                                                        : early);
}

// Nothing more goes but what lets workers run again; and that is not waited for long.
void Agent::goToTheEnd() {
  if (!leaveBy_) {
    leaveBy_ = now() + longestLeave;
    sd_notify(0, "STOPPING=1");
    if (carrying_) {
      road_.kit().dropWaiting();
      settleEnded();
      carrying_->stop(road_);
    }
  }
  settleEnded();
  if (carrying_ && !carrying_->standing().empty() && now() < *leaveBy_) return;
  wakeWorkers();
  leave();
}

// Those that stand still for a change that nobody ends any more; beside the road, which may wait.
void Agent::wakeWorkers() {
  if (!carrying_) return;
  const Time until = now() + longestWaking;
  for (const std::int64_t worker : carrying_->standing()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - now());
    const std::string why = reader_.resume(worker, std::max(left, 1ms));
    if (why.empty()) continue;
    log(Level::error, "end: worker " + std::to_string(worker) +
                          " was paused for a change and may stand still yet: " + why);
  }
}

void Agent::leave() {
  if (!underWay_.dead()) underWay_.noteIs("");
  memory_.save();
  log(Level::notice, "end: on signal " + std::to_string(endingSignal()));
  Norv::Agent::Kit::leaveProcess(ended);
}

}  // namespace Norvd
