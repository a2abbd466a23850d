#include "Direct.h"

#include "../protocol/Requests.h"
#include "../run/Report.h"
#include "../text/Text.h"
#include "Diagnosis.h"

namespace Norvctl {

namespace {

std::shared_ptr<grpc::Channel> channelTo(const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(-1);
  arguments.SetMaxSendMessageSize(-1);
  // A daemon that comes back is seen at once.
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
  // This is how long an attempt may take, too: a daemon on a busy machine needs its time.
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 5000);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1000);
  return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

grpc::ByteBuffer bufferOf(const std::string& bytes) {
  const grpc::Slice slice(bytes);
  return grpc::ByteBuffer(&slice, 1);
}

std::string bytesOf(const grpc::ByteBuffer& buffer) {
  std::vector<grpc::Slice> slices;
  std::string bytes;
  if (!buffer.Valid() || !buffer.Dump(&slices).ok()) return bytes;
  for (const grpc::Slice& slice : slices) {
    bytes.append(reinterpret_cast<const char*>(slice.begin()), slice.size());
  }
  return bytes;
}

}  // namespace

Direct::Direct(const std::string& host, U16 port, std::chrono::milliseconds patience)
    : host_(host),
      port_(port),
      address_(host + ":" + std::to_string(port)),
      patience_(patience),
      channel_(channelTo(address_)),
      stub_(channel_) {}

Direct::Reply Direct::call(std::string_view rpc, const std::string& requestBytes) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + patience_);
  grpc::CompletionQueue queue;
  const grpc::ByteBuffer request = bufferOf(requestBytes);
  const auto reader =
      stub_.PrepareUnaryCall(&context, "/bess.pb.BESSControl/" + std::string(rpc), request, &queue);
  reader->StartCall();
  grpc::ByteBuffer response;
  grpc::Status status;
  reader->Finish(&response, &status, this);
  void* tag = nullptr;
  bool ok = false;
  constexpr std::chrono::milliseconds lookForSignals{50};
  while (queue.AsyncNext(&tag, &ok, std::chrono::system_clock::now() + lookForSignals) ==
         grpc::CompletionQueue::TIMEOUT) {
    if (signalled_ && signalled_()) context.TryCancel();
  }
  return {status.error_code(), status.error_message(), bytesOf(response)};
}

void Direct::ask(Norv::GrpcRequestType type, const google::protobuf::Message& request,
                 google::protobuf::Message* response) {
  const RequestInfo& info = requestInfos()[type - 1];
  const Reply reply = call(info.rpc, request.SerializeAsString());
  const std::string what = std::string(info.name) + " at " + escaped(address_);
  if (reply.status != grpc::StatusCode::OK) {
    std::string text = what + " failed: " + statusName(reply.status);
    if (!reply.message.empty()) text += ": " + escaped(reply.message);
    if (reply.status == grpc::StatusCode::UNAVAILABLE ||
        reply.status == grpc::StatusCode::DEADLINE_EXCEEDED) {
      text = "no answer from " + escaped(address_) + ": " + whyNoAnswer();
    }
    throw DirectError(reply.status, text);
  }
  if (!response->ParseFromString(reply.bytes)) {
    throw DirectError(reply.status,
                      what + ": the reply does not decode as " + std::string(info.responseMessage));
  }
}

std::string Direct::whyNoAnswer() const {
  const DiagnosisUnderWay look(host_, port_, std::chrono::milliseconds(1000));
  const auto found = look.result(std::chrono::milliseconds(2500));
  return found ? escaped(found->text) : "looking for the reason takes too long";
}

}  // namespace Norvctl
