#include <Lumo/Assert.h>
#include <Norv/AsyncClientCall.h>
#include <Norv/ClientTrace.h>
#include <Norv/GrpcClient.h>

namespace Norv {

namespace pb = bess::pb;

GrpcClient::GrpcClient(std::shared_ptr<grpc::Channel> channel, const Lumo::Ptr<CmdGroup>& cmdGroup,
                       const Lumo::Ptr<GrpcErrorHandlingStatus>& errorStatus, Lumo::Lock* lock,
                       Lumo::Condition* condition) {
  Twine::trace<ClientTrace::starting>();
  stub_ = pb::BESSControl::NewStub(channel);
  cmdGroup_ = cmdGroup;
  errorStatus_ = errorStatus;
  lock_ = lock;
  condition_ = condition;
  cq_ = new grpc::CompletionQueue();
}

GrpcClient::~GrpcClient() {
  Twine::trace<ClientTrace::terminating>();
  cq_->Shutdown();
  LUMO_ASSERT(cq_, "cq_");
  delete cq_;
}

void GrpcClient::doProcessGrpcCmd() {
  Lumo::Ptr<GrpcCmd> cmd;
  void* tag = nullptr;
  // Kept on purpose: not set back before each Next. The result of Next is not looked at either; a
  // completion that is not ok (a reply that does not decode) is skipped in silence, its record
  // kept.
  bool ok = false;
  while (true) {
    cmd = getCmdFromQueue();
    if (cmd && !errorStatus_->errorOccured()) {
      sendRequestInternal(cmd);
      cq_->Next(&tag, &ok);
      if (ok) processResponse(cmd, tag);
      continue;
    }
    // Kept on purpose: a command taken while the flag is set is dropped, one per wake-up; it is let
    // go when the next one is taken. A null command passes for an empty queue.
    Twine::trace<ClientTrace::noMoreCmds>();
    Lumo::LockAnchor anchor(lock_, 0);
    condition_->wait(lock_);
    Twine::trace<ClientTrace::wakenUp>();
  }
}

bool GrpcClient::doProcessBlockingGrpcCmd(const Lumo::Ptr<GrpcCmd>& cmd) {
  void* tag = nullptr;
  bool ok = false;
  sendRequestInternal(cmd);
  cq_->Next(&tag, &ok);
  if (!ok) return false;
  processResponse(cmd, tag);
  return !errorStatus_->errorOccured();
}

Lumo::Ptr<GrpcCmd> GrpcClient::getCmdFromQueue() {
  Lumo::LockAnchor anchor(lock_, 0);
  return cmdGroup_->cmdBatchDeq();
}

void GrpcClient::sendRequestInternal(const Lumo::Ptr<GrpcCmd>& cmd) {
  const GrpcRequestType type = cmd->requestType();
  Twine::trace<ClientTrace::sending>(type);
  switch (type) {
#define NORV_REQUEST(number, name, Rpc, Request, Response)                \
  case name:                                                              \
    sendRequestCommon<pb::Request, pb::Response>(cmd, &Stub::Async##Rpc); \
    break;
#include <Norv/GrpcRequests.def>
    default:
      LUMO_ASSERT(false, "false && \"unknown request type.\"");
  }
  // Kept on purpose: getPortConf falls through into the row of getPortStats, whose request it is
  // not; the process ends there.
  if (type == getPortConf) {
    sendRequestCommon<pb::GetPortStatsRequest, pb::GetPortStatsResponse>(cmd,
                                                                         &Stub::AsyncGetPortStats);
  }
}

template <class Request, class Response>
void GrpcClient::sendRequestCommon(const Lumo::Ptr<GrpcCmd>& cmd,
                                   std::unique_ptr<grpc::ClientAsyncResponseReader<Response>> (
                                       Stub::*method)(grpc::ClientContext*, const Request&,
                                                      grpc::CompletionQueue*)) {
  // Owned by the completion from Finish on.
  auto* call = new AsyncClientCall<Response>();
  const Request* request = dynamic_cast<const Request*>(cmd->request());
  LUMO_ASSERT(request, "request && \"Found an invalid Grpc Request\"");
  call->context.set_wait_for_ready(true);
  call->responseReader.reset((stub_.get()->*method)(&call->context, *request, cq_).release());
  call->responseReader->Finish(&call->response, &call->status, call);
  // The status is written on completion, so that this finds it OK unless another thread has taken
  // the completion already; then, strictly, the record is no longer ours.
  if (!call->status.ok()) {
    Twine::trace<ClientTrace::failedSend>(static_cast<int>(call->status.error_code()),
                                          call->status.error_message());
  }
}

void GrpcClient::processResponse(const Lumo::Ptr<GrpcCmd>& cmd, void* tag) {
  const GrpcRequestType type = cmd->requestType();
  Twine::trace<ClientTrace::processing>(type);
  switch (type) {
#define NORV_REQUEST(number, name, Rpc, Request, Response) \
  case name:                                               \
    processResponseCommon<pb::Response>(cmd, tag);         \
    break;
#include <Norv/GrpcRequests.def>
    default:
      LUMO_ASSERT(false, "false && \"unknown request type.\"");
  }
}

template <class Response>
void GrpcClient::processResponseCommon(const Lumo::Ptr<GrpcCmd>& cmd, void* tag) {
  const std::unique_ptr<AsyncClientCall<Response>> call(
      static_cast<AsyncClientCall<Response>*>(tag));
  if (call->status.ok()) {
    Lumo::ActivityLockAnchor activity(0);
    cmd->processResponse(&call->response);
    return;
  }
  Twine::trace<ClientTrace::failedResponse>(static_cast<int>(call->status.error_code()),
                                            call->status.error_message());
  errorStatus_->errorOccuredIs(true);
}

}  // namespace Norv
