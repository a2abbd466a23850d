#pragma once

#include <google/protobuf/message.h>

#include <istream>
#include <memory>
#include <string>
#include <vector>

#include <Norv/GrpcRequestType.h>

namespace Norvctl {

// One line of a command file: a command for a queue, or the announcement of a queue.
struct Step {
  std::string queue;
  Norv::GrpcRequestType type = Norv::unknown;  // unknown: an announcement
  std::unique_ptr<google::protobuf::Message> request;
  std::size_t line = 0;

  bool announcement() const { return type == Norv::unknown; }
};

struct CommandFileOptions {
  // Lets getPortConf through, which ends the process.
  bool allowAbort = false;
};

// The steps of JSON lines, and what is wrong with the lines that are none, each complaint as
// "FILE:LINE:COLUMN: reason". Blank lines are passed over.
struct CommandFile {
  std::vector<Step> steps;
  std::vector<std::string> complaints;

  void read(std::istream& in, const std::string& fileName, const CommandFileOptions& options);
};

// Why a getPortConf command is not sent.
extern const char* const getPortConfReason;

}  // namespace Norvctl
