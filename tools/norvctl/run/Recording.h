#pragma once

#include <cstdio>
#include <string>

#include "Session.h"

namespace Norvctl {

// Writes what crossed the wire, a JSON line per command that was sent: type, request, response,
// status and time; bytes (`request_raw`, `response_raw`) where JSON cannot show a message. One that
// was not answered has a situation in the place of a status: whether it was sent is not known.
class RecordingWriter {
 public:
  // Replaces the file. Throws InputError when it cannot be written, or is one of the inputs.
  RecordingWriter(const std::string& path, const std::vector<std::string>& inputs);
  ~RecordingWriter();
  RecordingWriter(const RecordingWriter&) = delete;
  RecordingWriter& operator=(const RecordingWriter&) = delete;

  void add(const Norv::Agent::CommandReport& report, const Entry& entry);
  // Writes out all; false, and a word on standard error, when that failed.
  bool close();

 private:
  const std::string path_;
  std::FILE* file_;
};

// `"KEY":JSON`, or `"KEY_raw":"BASE64"` where JSON cannot show the message.
std::string recordedMessage(const std::string& key, const google::protobuf::Message& message);

}  // namespace Norvctl
