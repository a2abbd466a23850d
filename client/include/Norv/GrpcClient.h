#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>

#include <Lumo/Lock.h>
#include <Norv/CmdGroup.h>
#include <Norv/GrpcErrorHandlingStatus.h>
#include <bess/pb/service.grpc.pb.h>

namespace Norv {

// The one object that talks to the daemon. Its owner runs doProcessGrpcCmd on a thread of its own;
// that loop takes the commands of the pending queue one at a time, sends each, waits for its
// completion and hands the response to the command. Calls wait for the daemon to be there and have
// no deadline.
//
// Once an RPC has failed, the error status is set and the loop sends nothing more while it stays
// set. No RPC is tried again, and nothing stops the loop. The channel itself connects again by its
// own rules, with pauses that grow up to two minutes.
class GrpcClient {
 public:
  // Makes the stub and the completion queue; no RPC, and no look whether the daemon is there.
  // `lock` guards `cmdGroup` and goes with `condition`; both are borrowed and must outlive every
  // use: the loop and getCmdFromQueue. The destructor does not touch them.
  GrpcClient(std::shared_ptr<grpc::Channel> channel, const Lumo::Ptr<CmdGroup>& cmdGroup,
             const Lumo::Ptr<GrpcErrorHandlingStatus>& errorStatus, Lumo::Lock* lock,
             Lumo::Condition* condition);
  // Shuts the completion queue down. Does not stop a running loop and does not wait for anything,
  // so none may be running.
  ~GrpcClient();
  GrpcClient(const GrpcClient&) = delete;
  GrpcClient& operator=(const GrpcClient&) = delete;

  // The worker's loop; never returns.
  // Kept on purpose: taking a command and going to sleep are two sections under the lock, and the
  // wait has no predicate. A signal given between the two is lost; whoever waits for an effect
  // signals again.
  void doProcessGrpcCmd();

  // Sends one command and waits for its completion on the calling thread. False when its reply does
  // not decode, of which nothing is recorded, and when the error status has a failure recorded by
  // then, whenever it happened. Uses neither lock nor queue and does not look at the flag before
  // sending. For a client of its own, without a worker: the two would take each other's
  // completions.
  bool doProcessBlockingGrpcCmd(const Lumo::Ptr<GrpcCmd>& cmd);

  // The steps of the loop, each on the thread that runs it.

  // Takes the head of the pending queue, under the lock; null when it is empty.
  Lumo::Ptr<GrpcCmd> getCmdFromQueue();
  // Starts the command's RPC. Aborts on a type without an RPC, and on a request that is null or not
  // of the type's message class.
  void sendRequestInternal(const Lumo::Ptr<GrpcCmd>& cmd);
  // Takes the completion of the command's RPC: hands the response over or records the failure, and
  // frees the call's record.
  void processResponse(const Lumo::Ptr<GrpcCmd>& cmd, void* tag);

  using Stub = bess::pb::BESSControl::Stub;

  // The two steps for one pair of messages; defined in the client's source. The library exports the
  // instances for the pairs of GrpcRequests.def, all of them and no others: not inlined, they are
  // there whatever the optimiser makes of their calls.
  template <class Request, class Response>
  [[gnu::noinline]] void sendRequestCommon(
      const Lumo::Ptr<GrpcCmd>& cmd,
      std::unique_ptr<grpc::ClientAsyncResponseReader<Response>> (Stub::*method)(
          grpc::ClientContext*, const Request&, grpc::CompletionQueue*));
  template <class Response>
  [[gnu::noinline]] void processResponseCommon(const Lumo::Ptr<GrpcCmd>& cmd, void* tag);

 private:
  std::unique_ptr<Stub> stub_;
  grpc::CompletionQueue* cq_;
  Lumo::Ptr<CmdGroup> cmdGroup_;
  Lumo::Ptr<GrpcErrorHandlingStatus> errorStatus_;
  Lumo::Lock* lock_;
  Lumo::Condition* condition_;
};

}  // namespace Norv
