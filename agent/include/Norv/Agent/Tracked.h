#pragma once

#include <memory>

#include <Norv/Agent/Ledger.h>
#include <Norv/GrpcCmd.h>

namespace google::protobuf {
class Message;
}

namespace Norv::Agent {

// The error that a response carries: code 0 for none.
struct ResponseError {
  int code = 0;
  std::string text;
};
ResponseError responseError(const google::protobuf::Message& response);

// A message as one line of JSON, or a text that says why not: it has more than `mostBytes`, or
// there is none.
std::string jsonOf(const google::protobuf::Message* message, std::size_t mostBytes);

// How the kit finds the ledger's entry of a command it sees in a queue, and the ledger the command.
class TrackedEntry {
 public:
  U64 id() const { return id_; }  // the command's number in the ledger
  // Null after freeRequestMemory. Asked under the ledger's lock, so it may call nothing of the
  // ledger.
  virtual const google::protobuf::Message* trackedRequest() const = 0;

 protected:
  TrackedEntry(std::shared_ptr<Ledger> ledger, GrpcRequestType type)
      : ledger_(std::move(ledger)), id_(ledger_->created(type, this)) {}
  virtual ~TrackedEntry() = default;

  const std::shared_ptr<Ledger> ledger_;
  const U64 id_;
};

// A command class with its entry in a ledger:
//
//   queue->cmdBatchEnq(Lumo::allocate<Norv::Agent::Tracked<CreatePort>>(kit.ledger(), request));
//
// The command's own handler runs first. Nothing else about the command changes. Keep no pointer to
// one that has been announced: its release tells the ledger what came of it (see Kit).
template <class Cmd>
class Tracked : public Cmd, public TrackedEntry {
 public:
  template <class... Args>
  explicit Tracked(std::shared_ptr<Ledger> ledger, Args&&... args)
      : Cmd(std::forward<Args>(args)...), TrackedEntry(std::move(ledger), Cmd::requestType()) {}
  ~Tracked() override {
    if (!answered_) ledger_->released(id_);
  }

  void processResponse(google::protobuf::Message* response) override {
    const Time at = ledger_->now();
    const ResponseError error = responseError(*response);
    {
      const Ledger::Handling handling(*ledger_);
      Cmd::processResponse(response);
    }
    answered_ = true;
    ledger_->answered(id_, at, error.code, error.text);
  }
  const google::protobuf::Message* trackedRequest() const override {
    return this->GrpcCmd::request();
  }

 private:
  bool answered_ = false;
};

}  // namespace Norv::Agent
