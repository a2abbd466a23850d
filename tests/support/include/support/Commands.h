#pragma once

#include <google/protobuf/message.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Norv/GrpcCmd.h>

namespace support {

// What became of the commands of one test.
struct CommandLog {
  std::atomic<int> responses{0};
  std::atomic<int> destroyed{0};
  mutable std::mutex mutex;
  std::vector<std::string> responseTypes;  // message names, in the order of arrival
  std::vector<int> responded;              // numbers of the commands, likewise
  std::vector<int> released;               // likewise, by destruction
  std::thread::id responseThread;

  std::vector<int> respondedNumbers() const {
    std::lock_guard guard(mutex);
    return responded;
  }
  std::vector<int> releasedNumbers() const {
    std::lock_guard guard(mutex);
    return released;
  }
};

// A command that enters its response and its destruction into a log.
class LoggedCmd : public Norv::GrpcCmd {
 public:
  LoggedCmd(std::shared_ptr<CommandLog> log, int number, google::protobuf::Message* request,
            Norv::GrpcRequestType type)
      : GrpcCmd(request, type), log_(std::move(log)), number_(number) {}
  ~LoggedCmd() override {
    {
      std::lock_guard guard(log_->mutex);
      log_->released.push_back(number_);
    }
    ++log_->destroyed;
  }
  void processResponse(google::protobuf::Message* response) override {
    {
      std::lock_guard guard(log_->mutex);
      log_->responseTypes.push_back(response->GetTypeName());
      log_->responded.push_back(number_);
      log_->responseThread = std::this_thread::get_id();
    }
    ++log_->responses;
  }

 private:
  const std::shared_ptr<CommandLog> log_;
  const int number_;
};

// A request message of the type's class, empty.
std::unique_ptr<google::protobuf::Message> newRequest(Norv::GrpcRequestType type);

}  // namespace support
