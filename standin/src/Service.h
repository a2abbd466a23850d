#pragma once

#include <Standin/Server.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>

#include <bess/pb/service.grpc.pb.h>

#include "Daemon.h"
#include "Faults.h"
#include "Journal.h"
#include "Refusal.h"

namespace Standin {

// The gRPC face of the daemon: one override per request, each an expansion of the table of
// requests. Around the daemon's own answer come the pace, the faults and the log.
class Service final : public bess::pb::BESSControl::Service {
 public:
  explicit Service(const Options& options);
  ~Service() override;

#define NORV_REQUEST(number, name, rpc, request, response)                    \
  grpc::Status rpc(grpc::ServerContext* context, const bess::pb::request* in, \
                   bess::pb::response* out) override {                        \
    return answer(number, #name, &Requests::name, *context, *in, *out);       \
  }
#include <Norv/GrpcRequests.def>

  Faults& faults() {
    return faults_;
  }
  Pace pace() const;
  void paceIs(const Pace& pace);
  std::string dump() const;
  // See Server.
  void load(const std::string& lines);
  // Ends all waiting; calls are answered at once from now on.
  void stopWaiting();
  // Where the server listens, for faults that end that; once, as soon as it serves.
  void addressIs(const std::string& address) {
    address_ = address;
    addressKnown_.test_and_set();
    addressKnown_.notify_all();
  }

 private:
  template <class Request, class Response>
  using Handler = void (Requests::*)(const Request&, Response&);

  template <class Request, class Response>
  grpc::Status answer(int number, const char* rpc, Handler<Request, Response> handler,
                      grpc::ServerContext& context, const Request& in, Response& out) {
    const auto begin = std::chrono::steady_clock::now();
    keepPace(context);
    const std::optional<Faults::Strike> strike = faults_.strike(rpc, in);
    grpc::Status status;
    if (!strike) {
      status = run(number, handler, in, out);
    } else if (strikesBefore(*strike, context)) {
      status = refusedBy(strike->fault, out);
    } else {
      status = run(number, handler, in, out);
      status = spoil(strike->fault, context, out, status);
    }
    if (log_ != nullptr) log(rpc, in, out.error(), status, strike, begin);
    if (strike && strike->fault.kind == Fault::Kind::Exit) exit();
    return status;
  }

  template <class Request, class Response>
  grpc::Status run(int number, Handler<Request, Response> handler, const Request& in,
                   Response& out) {
    const std::lock_guard lock(mutex_);
    return apply(state_, number, handler, in, out);
  }

  // The daemon and how it came to be as it is.
  struct State {
    std::unique_ptr<Daemon> daemon;
    Journal journal;
  };

  template <class Request, class Response>
  static grpc::Status apply(State& state, int number, Handler<Request, Response> handler,
                            const Request& in, Response& out) {
    grpc::Status status;
    try {
      (state.daemon.get()->*handler)(in, out);
    } catch (const Refusal& refusal) {
      out.Clear();
      out.mutable_error()->set_code(refusal.code);
      out.mutable_error()->set_errmsg(refusal.what());
    } catch (const Unimplemented& unimplemented) {
      return {grpc::StatusCode::UNIMPLEMENTED, unimplemented.what()};
    } catch (const HandlerFailure& failure) {
      status = {grpc::StatusCode::UNKNOWN, failure.what()};
    }
    state.journal.note(number, in, out.error().code());
    return status;
  }

  // The state that a dump or a recording leads to.
  State stateFrom(const std::string& lines) const;
  void playLine(State& state, const std::string& line) const;

  template <class Response>
  static grpc::Status refusedBy(const Fault& fault, Response& out) {
    if (fault.kind == Fault::Kind::Error) {
      out.mutable_error()->set_code(fault.code == 0 ? 5 : fault.code);
      out.mutable_error()->set_errmsg(fault.text);
      return grpc::Status::OK;
    }
    const int code = fault.kind == Fault::Kind::Status && fault.code != 0 ? fault.code : 14;
    return {static_cast<grpc::StatusCode>(code), fault.text};
  }

  // Waits as a loaded daemon makes its callers wait.
  void keepPace(grpc::ServerContext& context);
  // Does what a fault does before the effect; whether it takes the place of the effect.
  bool strikesBefore(const Faults::Strike& strike, grpc::ServerContext& context);
  // Does what a fault does to an answer.
  grpc::Status spoil(const Fault& fault, grpc::ServerContext& context,
                     google::protobuf::Message& out, const grpc::Status& status);
  void hangUp(grpc::ServerContext& context);
  // Ends the process, unless the options say otherwise.
  void exit();
  const std::string& address() const {
    addressKnown_.wait(false);
    return address_;
  }
  // Returns early when the client gives up, the server ends, or `over` says so, with waitMutex_
  // held.
  void waitUntil(
      std::chrono::steady_clock::time_point end, grpc::ServerContext& context,
      const std::function<bool()>& over = [] { return false; });
  void log(const char* rpc, const google::protobuf::Message& in, const bess::pb::Error& error,
           const grpc::Status& status, const std::optional<Faults::Strike>& strike,
           std::chrono::steady_clock::time_point begin);

  const Options options_;
  std::string address_;            // Written once, before the flag says so.
  std::atomic_flag addressKnown_;  // Set with release, waited for with acquire.
  mutable std::mutex mutex_;       // Held while a handler runs; guards the state.
  State state_;
  Faults faults_;

  mutable std::mutex waitMutex_;
  std::condition_variable waitCondition_;
  bool stopping_ = false;
  std::atomic<bool> paced_ = false;  // Relaxed: a call that races with a change may miss it.
  Pace pace_;
  int paces_ = 0;                                   // How often it was set.
  std::chrono::steady_clock::time_point nextTurn_;  // Of the rate.
  std::mt19937_64 random_{0};

  std::mutex logMutex_;
  std::FILE* log_ = nullptr;
};

}  // namespace Standin
