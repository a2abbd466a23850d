#include "Replay.h"

#include <Standin/Server.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/message_differencer.h>
#include <google/protobuf/wrappers.pb.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>

#include <bess/pb/service.grpc.pb.h>

namespace StandinTest {

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::Struct;

void fromJson(const std::string& text, Message& message) {
  google::protobuf::util::JsonParseOptions options;
  options.ignore_unknown_fields = true;
  const auto status = google::protobuf::util::JsonStringToMessage(text, &message, options);
  if (!status.ok()) throw std::runtime_error(std::string(status.message()) + " in " + text);
}

std::string toJson(const Message& message) {
  std::string text;
  const auto status = google::protobuf::util::MessageToJsonString(message, &text);
  return status.ok() ? text : message.ShortDebugString();
}

// One line of a command file.
class Line {
 public:
  explicit Line(const std::string& text) { fromJson(text, json_); }
  std::string text(const char* field) const {
    const auto found = json_.fields().find(field);
    return found == json_.fields().end() ? "" : found->second.string_value();
  }
  bool has(const char* field) const { return json_.fields().count(field) > 0; }
  int status() const {
    const auto& fields = json_.fields().at("status").struct_value().fields();
    return static_cast<int>(fields.at("code").number_value());
  }
  // The message under `field`, or from the bytes under `field`_raw.
  void read(const std::string& field, Message& message) const {
    if (has(field.c_str())) {
      fromJson(toJson(json_.fields().at(field)), message);
    } else if (has((field + "_raw").c_str())) {
      google::protobuf::BytesValue bytes;
      fromJson("\"" + text((field + "_raw").c_str()) + "\"", bytes);
      message.ParseFromString(bytes.value());
    }
  }

 private:
  Struct json_;
};

// Clears fields of these names in the message and all messages in it.
void clearNamed(Message& message, const std::set<std::string>& names) {
  const Reflection& reflection = *message.GetReflection();
  std::vector<const FieldDescriptor*> fields;
  reflection.ListFields(message, &fields);
  for (const FieldDescriptor* field : fields) {
    if (names.count(field->name()) > 0) {
      reflection.ClearField(&message, field);
    } else if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && !field->is_map()) {
      if (!field->is_repeated()) {
        clearNamed(*reflection.MutableMessage(&message, field), names);
        continue;
      }
      for (int i = 0; i < reflection.FieldSize(message, field); ++i)
        clearNamed(*reflection.MutableRepeatedMessage(&message, field, i), names);
    }
  }
}

bool volatileDescription(const std::string& moduleClass) {
  return moduleClass == "Queue" || moduleClass == "FlowGen";
}

// The masks take out what is not compared: first of all, fields that differ from run to run on a
// daemon that moves packets.
void mask(Message&) {}
void mask(bess::pb::VersionResponse& m) {
  m.clear_version();
}
void mask(bess::pb::GetTcStatsResponse& m) {
  clearNamed(m, {"timestamp", "count", "cycles", "packets", "bits"});
}
void mask(bess::pb::GetPortStatsResponse& m) {
  clearNamed(m, {"timestamp", "packets", "dropped", "bytes"});
  for (auto* stat : {m.mutable_inc(), m.mutable_out()})
    for (auto* values :
         {stat->mutable_requested_hist(), stat->mutable_actual_hist(), stat->mutable_diff_hist()})
      std::fill(values->begin(), values->end(), 0);
}
void mask(bess::pb::GetModuleInfoResponse& m) {
  clearNamed(m, {"timestamp", "cnt", "pkts", "bytes"});
  if (volatileDescription(m.mclass())) m.clear_desc();
  if (m.mclass() != "MetadataTest" || m.metadata_size() < 2) return;
  auto& attributes = *m.mutable_metadata();
  clearNamed(m, {"offset"});
  std::sort(attributes.begin(), attributes.end(),
            [](const auto& a, const auto& b) { return a.name() < b.name(); });
}
void mask(bess::pb::ListModulesResponse& m) {
  for (auto& module : *m.mutable_modules())
    if (volatileDescription(module.mclass())) module.clear_desc();
}
void mask(bess::pb::ListWorkersResponse& m) {
  clearNamed(m, {"silent_drops"});
}
void mask(bess::pb::ListTcsResponse& m) {
  clearNamed(m, {"blocked"});
}
void mask(bess::pb::CreatePortResponse& m) {
  clearNamed(m, {"mac_addr"});
}
void mask(bess::pb::ListPortsResponse& m) {
  clearNamed(m, {"mac_addr"});
}
void mask(bess::pb::GetPortConfResponse& m) {
  clearNamed(m, {"mac_addr"});
}
void mask(bess::pb::DumpMempoolResponse& m) {
  clearNamed(m, {"mp_available_count", "mp_in_use_count", "ring_count", "ring_free_count"});
}
void mask(bess::pb::CommandResponse& m) {
  bess::pb::QueueCommandGetStatusResponse status;
  if (m.data().UnpackTo(&status)) {
    clearNamed(status, {"count", "enqueued", "dequeued", "dropped"});
    m.mutable_data()->PackFrom(status);
  }
  if (m.data().Is<bess::pb::MeasureCommandGetSummaryResponse>()) m.mutable_data()->clear_value();
}

// The help texts of classes and drivers are the stand-in's own words, so they are not compared.
void mask(bess::pb::GetMclassInfoResponse& m) {
  m.clear_help();
}
void mask(bess::pb::GetDriverInfoResponse& m) {
  m.clear_help();
}

class Player {
 public:
  Player()
      : server_(options()),
        stub_(bess::pb::BESSControl::NewStub(directChannel(server_.address()))) {}

  void play(const Line& line, ReplayResult& result) {
    const std::string type = line.text("type");
#define NORV_REQUEST(number, name, rpc, request, response) \
  if (type == #name)                                       \
    call<bess::pb::request, bess::pb::response>(&bess::pb::BESSControl::Stub::rpc, line, result);
#include <Norv/GrpcRequests.def>
    if (type == "killBess") server_.shutdown();
  }

 private:
  static Standin::Options options() {
    Standin::Options options;
    options.listen = "127.0.0.1:0";
    options.strictDaemon = true;
    return options;
  }

  template <class Request, class Response, class Method>
  void call(Method method, const Line& line, ReplayResult& result) {
    Request request;
    line.read("request", request);
    Response response, expected;
    line.read("response", expected);
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(20));
    const grpc::Status status = (stub_.get()->*method)(&context, request, &response);
    remember(request, response);
    const int code = static_cast<int>(status.error_code());
    const auto note = [&] {
      result.differences.push_back(
          {result.lines, line.text("type") + subject(request),
           outcome(line.status(), expected.error()) + " -> " + outcome(code, response.error()),
           shortened(toJson(request)), shortened(toJson(expected)), shortened(toJson(response))});
    };
    if (code != line.status() || response.error().code() != expected.error().code()) return note();
    ++result.codes;
    mask(response);
    mask(expected);
    // A daemon sends no error when it takes a hook off; the recorder that keeps no bytes wrote the
    // error of every answer to this request, an empty one there.
    if constexpr (std::is_same_v<Request, bess::pb::ConfigureGateHookRequest>)
      if (!request.enable() && expected.error().code() == 0 && !line.has("response_raw"))
        expected.clear_error();
    if (!google::protobuf::util::MessageDifferencer::Equals(expected, response)) return note();
    ++result.bodies;
  }

  template <class Request, class Response>
  void remember(const Request& request, const Response& response) {
    if constexpr (std::is_same_v<Request, bess::pb::CreateModuleRequest>)
      if (response.error().code() == 0) classes_[response.name()] = request.mclass();
  }

  // What groups differences: the class and the command, where a request has them.
  template <class Request>
  std::string subject(const Request& request) const {
    if constexpr (std::is_same_v<Request, bess::pb::CreateModuleRequest>)
      return " " + request.mclass();
    else if constexpr (std::is_same_v<Request, bess::pb::CommandRequest>)
      return " " + classOf(request.name()) + " " + request.cmd();
    else if constexpr (std::is_same_v<Request, bess::pb::GetModuleInfoRequest>)
      return " " + classOf(request.name());
    else
      return "";
  }

  std::string classOf(const std::string& module) const {
    const auto found = classes_.find(module);
    return found == classes_.end() ? "?" : found->second;
  }

  static std::string outcome(int status, const bess::pb::Error& error) {
    return status != 0 ? "status " + std::to_string(status) : std::to_string(error.code());
  }

  static std::string shortened(const std::string& text) {
    return text.substr(0, 3000);
  }

  Standin::Server server_;
  std::unique_ptr<bess::pb::BESSControl::Stub> stub_;
  std::map<std::string, std::string> classes_;  // By module.
};

}  // namespace

std::shared_ptr<grpc::Channel> directChannel(const std::string& address) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

std::vector<std::filesystem::path> recordings(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  if (!std::filesystem::is_directory(folder)) return files;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    if (entry.path().extension() == ".jsonl") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

ReplayResult& ReplayResult::operator+=(const ReplayResult& other) {
  lines += other.lines;
  codes += other.codes;
  bodies += other.bodies;
  differences.insert(differences.end(), other.differences.begin(), other.differences.end());
  return *this;
}

std::string ReplayResult::summary() const {
  char text[160];
  std::snprintf(text, sizeof text, "%6d lines, codes agree in %6d (%.2f%%), bodies in %6d (%.2f%%)",
                lines, codes, 100 * codeShare(), bodies, 100 * bodyShare());
  return text;
}

ReplayResult replay(const std::filesystem::path& recording) {
  ReplayResult result;
  Player player;
  std::ifstream file(recording);
  std::string text;
  while (std::getline(file, text)) {
    if (text.empty()) continue;
    ++result.lines;
    player.play(Line(text), result);
  }
  return result;
}

}  // namespace StandinTest
