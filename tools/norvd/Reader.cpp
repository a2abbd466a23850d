#include "Reader.h"

#include <thread>
#include <vector>

#include <bess/pb/service.grpc.pb.h>

#include "look/Diagnosis.h"

namespace Norvd {

namespace {

using namespace std::chrono_literals;

constexpr auto betweenAttempts = 400ms;  // while one goes on without an answer
constexpr auto betweenLooks = 5ms;       // at how far they are
constexpr auto forDiagnosis = 200ms;

std::shared_ptr<grpc::Channel> channelTo(const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(-1);
  // Shares no connection, and no pause, with another channel.
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

}  // namespace

Reader::Reader(const std::string& host, U16 port, std::chrono::milliseconds patience,
               std::function<void(Reading)> done)
    : host_(host), port_(port), patience_(patience), done_(std::move(done)) {}

void Reader::start() {
  std::thread([this, fresh = failed_] {
    if (fresh) connect();
    done_(read());
  }).detach();
}

// A host that is not there yet swallows the first words of a connection, which the system repeats
// after ever longer pauses. One that is slow gets as far as it can with the first attempt.
void Reader::connect() {
  lost_ = nullptr;
  std::vector<std::shared_ptr<grpc::Channel>> attempts;
  const auto until = std::chrono::steady_clock::now() + patience_;
  for (auto next = std::chrono::steady_clock::now();;) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= next) {
      attempts.push_back(channelTo(host_ + ":" + std::to_string(port_)));
      next = now + betweenAttempts;
    }
    channel_ = attempts.back();
    for (const auto& attempt : attempts) {
      if (attempt->GetState(true) != GRPC_CHANNEL_READY) continue;
      channel_ = attempt;
      return;
    }
    const auto state = channel_->GetState(false);
    // Where it was refused a call tells so.
    if (now >= until || state == GRPC_CHANNEL_TRANSIENT_FAILURE) return;
    // Who waits moves the others on, too.
    channel_->WaitForStateChange(state, std::chrono::system_clock::now() + betweenLooks);
  }
}

std::string Reader::resume(std::int64_t worker, std::chrono::milliseconds patience) const {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + patience);
  bess::pb::ResumeWorkerRequest request;
  request.set_wid(worker);
  bess::pb::EmptyResponse reply;
  const auto status =
      bess::pb::BESSControl::NewStub(channel_)->ResumeWorker(&context, request, &reply);
  if (!status.ok()) return status.error_message();
  if (reply.error().code() == 0) return "";
  return "error " + std::to_string(reply.error().code()) + ": " + reply.error().errmsg();
}

// In fewer words than the channel has, where a look at the host tells.
std::string Reader::whySilent(const Norv::State::ReadError& error) const {
  const bool silent = error.status() == grpc::StatusCode::UNAVAILABLE ||
                      error.status() == grpc::StatusCode::DEADLINE_EXCEEDED;
  return silent ? Norvctl::diagnose(host_, port_, forDiagnosis).text : error.what();
}

// A channel sees the end of its connection at once only while somebody waits for it.
void Reader::watch() {
  lost_ = std::make_shared<std::atomic<bool>>(false);
  std::thread([channel = channel_, lost = lost_] {
    const auto never = std::chrono::system_clock::now() + std::chrono::hours(24 * 365);
    channel->WaitForStateChange(GRPC_CHANNEL_READY, never);
    *lost = true;
  }).detach();
}

std::shared_ptr<Norv::State::LiveSwitch> Reader::readOnce() const {
  return std::make_shared<Norv::State::LiveSwitch>(Norv::State::readSwitch(channel_, patience_));
}

Reading Reader::read() {
  Reading reading;
  try {
    const bool lostBefore = lost_ && *lost_;
    reading.live = readOnce();
    // Of two lives of the daemon, half of each; the second is asked again, whole.
    if (lost_ && !lostBefore && *lost_) reading.live = readOnce();
    const auto stub = bess::pb::BESSControl::NewStub(channel_);
    for (const auto& [name, port] : reading.live->ports) {
      grpc::ClientContext context;
      context.set_deadline(std::chrono::system_clock::now() + patience_);
      bess::pb::GetPortStatsRequest request;
      request.set_name(name);
      bess::pb::GetPortStatsResponse reply;
      if (!stub->GetPortStats(&context, request, &reply).ok() || reply.error().code() != 0)
        continue;
      reading.ports[name] = {reply.inc().packets(), reply.inc().bytes(), reply.inc().dropped(),
                             reply.out().packets(), reply.out().bytes(), reply.out().dropped()};
    }
  } catch (const Norv::State::ReadError& error) {
    reading.error = whySilent(error);
  }
  failed_ = !reading.live;
  reading.fresh = !failed_ && (!lost_ || *lost_);
  if (reading.fresh) watch();
  return reading;
}

}  // namespace Norvd
