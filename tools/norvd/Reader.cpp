#include "Reader.h"

#include <thread>

#include <bess/pb/service.grpc.pb.h>

namespace Norvd {

namespace {

std::shared_ptr<grpc::Channel> channelTo(const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(-1);
  // Shares no connection, and no pause, with another channel.
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

}  // namespace

Reader::Reader(const std::string& address, std::chrono::milliseconds patience,
               std::function<void(Reading)> done)
    : address_(address), patience_(patience), done_(std::move(done)) {}

void Reader::start() {
  if (failed_) {
    channel_ = channelTo(address_);
    lost_ = nullptr;
  }
  std::thread([this] { done_(read()); }).detach();
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

Reading Reader::read() {
  Reading reading;
  try {
    reading.live =
        std::make_shared<Norv::State::LiveSwitch>(Norv::State::readSwitch(channel_, patience_));
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
    reading.error = error.what();
  }
  failed_ = !reading.live;
  if (!failed_ && !lost_) watch();
  return reading;
}

}  // namespace Norvd
