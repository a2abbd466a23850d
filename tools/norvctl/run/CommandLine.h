#pragma once

#include <google/protobuf/message.h>

#include <memory>
#include <string>
#include <string_view>

#include <Norv/GrpcRequestType.h>

#include "../protocol/StrictJson.h"

namespace Norvctl {

// One line of a command file: a command for a queue, or the announcement of a queue.
struct Step {
  std::string queue;
  bool queueGiven = false;                     // or it is the usual one
  Norv::GrpcRequestType type = Norv::unknown;  // unknown: an announcement
  std::unique_ptr<google::protobuf::Message> request;
  std::size_t line = 0;
  std::size_t bytes = 0;  // of the line

  bool announcement() const { return type == Norv::unknown; }
};

struct CommandLineOptions {
  // Lets getPortConf through, which ends the process.
  bool allowAbort = false;
  // Leaves the request unread, and `request` null.
  bool withoutRequest = false;
};

// Whether there is nothing but white space.
bool blankLine(std::string_view line);
// The step of a line that is not blank; throws Complaint. docs/command-files.md has the grammar.
Step parseCommandLine(const std::string& line, const CommandLineOptions& options);

// Why a getPortConf command is not sent.
extern const char* const getPortConfReason;

}  // namespace Norvctl
