#include "Recording.h"

#include <errno.h>
#include <fcntl.h>
#include <google/protobuf/util/json_util.h>
#include <string.h>
#include <sys/stat.h>

#include <Bess/Text.h>
#include <Lumo/PrivateFile.h>

#include "../text/Text.h"

namespace Norvctl {

using Norv::Agent::CommandReport;
using Norv::Agent::Outcome;

namespace {

bool sameFile(const std::string& a, const std::string& b) {
  struct stat first;
  struct stat second;
  return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// How the call ended; where it did not, why there is no answer.
std::string endJson(const CommandReport& report) {
  const bool failed = report.outcome == Outcome::failed;
  if (failed && report.rpcCode == 0) {
    return "\"situation\":" + jsonText(report.errorText);
  }
  return "\"status\":{\"code\":" + std::to_string(failed ? report.rpcCode : 0) +
         ",\"message\":" + jsonText(failed ? report.errorText : "") + "}";
}

}  // namespace

RecordingWriter::RecordingWriter(const std::string& path, const std::vector<std::string>& inputs)
    : path_(path) {
  for (const std::string& input : inputs) {
    if (input != "-" && sameFile(input, path)) {
      throw InputError(path + " is one of the files to run; record into another");
    }
  }
  try {
    // Requests and responses may hold what is nobody else's.
    file_ = fdopen(Lumo::openPrivately(path, O_WRONLY | O_TRUNC), "w");
  } catch (const Lumo::PathError& error) {
    throw InputError("cannot record into " + path + ": " + error.what());
  }
}

RecordingWriter::~RecordingWriter() {
  if (file_) std::fclose(file_);
}

void RecordingWriter::add(const CommandReport& report, const Entry& entry) {
  if (report.outcome == Outcome::dropped || !entry.request) return;
  std::string line = "{\"type\":\"" + std::string(stringValue(report.type).charPtr()) + "\"";
  if (entry.queue != "main") line += ",\"queue\":" + jsonText(entry.queue);
  line += "," + recordedMessage("request", *entry.request);
  if (entry.response) line += "," + recordedMessage("response", *entry.response);
  line += "," + endJson(report);
  if (report.outcome == Outcome::undecodable) {
    line += ",\"situation\":\"the reply did not decode\"";
  }
  std::fprintf(file_, "%s,\"time\":\"%s\"}\n", line.c_str(), timeOfDay().c_str());
}

bool RecordingWriter::close() {
  const bool failed = std::ferror(file_) != 0;
  const bool closed = std::fclose(std::exchange(file_, nullptr)) == 0;
  if (!failed && closed) return true;
  std::fprintf(stderr, "norvctl: cannot write %s to its end: %s\n", path_.c_str(), strerror(errno));
  return false;
}

std::string recordedMessage(const std::string& key, const google::protobuf::Message& message) {
  std::string json;
  if (google::protobuf::util::MessageToJsonString(message, &json).ok()) {
    return jsonText(key) + ":" + json;
  }
  return jsonText(key + "_raw") + ":\"" + Bess::base64(message.SerializeAsString()) + "\"";
}

}  // namespace Norvctl
