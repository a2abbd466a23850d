// The verb doctor.

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/unknown_field_set.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include <bess/pb/service.pb.h>

#include "../Options.h"
#include "../Verb.h"
#include "../protocol/Requests.h"
#include "../run/Report.h"
#include "../text/Terminal.h"
#include "../text/Text.h"
#include "Diagnosis.h"
#include "Direct.h"
#include "Live.h"
#include "Reflection.h"

namespace Norvctl {

namespace {

namespace pb = bess::pb;
using google::protobuf::Message;

struct DoctorArguments {
  TargetOptions target;
  double timeoutSeconds = 5;
  bool asJson = false;
};

enum class Health { well, note, unwell };

// One thing that was looked at, with advice where there is something to do.
struct Finding {
  Health health;
  std::string about;
  std::string text;
  std::string advice;
};

const char* healthName(Health health) {
  return health == Health::well ? "ok" : health == Health::note ? "note" : "bad";
}

const char* const hookAdvice =
    "Where configureGateHook ends as undecodable, getModuleInfo shows whether the hook is there.";

class Doctor {
 public:
  explicit Doctor(Direct& direct) : direct_(direct) {}

  std::vector<Finding> examine() {
    add(Health::well, "reach", direct_.address() + " answers");
    version();
    calls();
    newerFields();
    roundTrip();
    return std::move(findings_);
  }

 private:
  void add(Health health, const std::string& about, const std::string& text,
           const std::string& advice = "") {
    findings_.push_back({health, about, text, advice});
  }

  void version() {
    add(Health::well, "version", escaped(readVersion(direct_)));
    const auto classes = readClassNames(direct_);
    const auto drivers = readDriverNames(direct_);
    add(classes.empty() ? Health::unwell : Health::well, "classes",
        std::to_string(classes.size()) + " module classes; port drivers " +
            escaped(listed(drivers)),
        classes.empty() ? "A daemon without classes makes no module: is it built with its modules?"
                        : "");
  }

  // Whether each RPC is there: as the daemon describes itself, or by a request that cannot be
  // decoded, which a handler never sees.
  void calls() {
    const auto described = describeService(direct_.channel(), "bess.pb.BESSControl");
    std::vector<std::string> missing;
    for (const RequestInfo& info : requestInfos()) {
      const bool named = !described || described->methods.count(std::string(info.rpc)) != 0;
      if (!named || !answersAtAll(info)) missing.emplace_back(info.name);
    }
    const std::string how = described ? "as it describes itself" : "by calls without effect";
    const std::size_t all = requestInfos().size();
    if (missing.empty()) {
      add(Health::well, "RPCs", "all " + std::to_string(all) + " are there, " + how);
    } else {
      add(Health::unwell, "RPCs",
          std::to_string(all - missing.size()) + " of " + std::to_string(all) + " are there, " +
              how + "; missing " + listed(missing),
          "Do not send " + listed(missing) +
              ": the RPC fails, and the library stops at a failed RPC.");
    }
    if (described) differingReplies(*described);
    gateHook(described.has_value());
  }

  bool answersAtAll(const RequestInfo& info) {
    // A field of length 127 of which nothing follows. The two requests that a daemon may know and
    // still not have are asked of a port that is not there.
    std::string request = "\x0a\x7f";
    if (info.type == Norv::addPortMacAddress || info.type == Norv::removePortMacAddress) {
      pb::MacAddressRequest whole;
      whole.set_name("norvctl doctor: no such port");
      request = whole.SerializeAsString();
    }
    return direct_.call(info.rpc, request).status != grpc::StatusCode::UNIMPLEMENTED;
  }

  // Replies whose message differs from ours in a field that both have.
  void differingReplies(const DescribedService& service) {
    for (const RequestInfo& info : requestInfos()) {
      const auto method = service.methods.find(std::string(info.rpc));
      if (method == service.methods.end()) continue;
      const auto theirs = service.messages.find(method->second.response);
      if (theirs == service.messages.end()) continue;
      const std::unique_ptr<Message> ours = newResponse(info.type);
      for (const auto& field : theirs->second.field()) {
        const auto* own = ours->GetDescriptor()->FindFieldByNumber(field.number());
        if (!own || own->type() == static_cast<int>(field.type())) continue;
        hookReplyDiffers_ = hookReplyDiffers_ || info.type == Norv::configureGateHook;
        add(Health::unwell, "replies",
            std::string(info.name) + " answers " + escaped(method->second.response) +
                ", whose field " + std::to_string(field.number()) + " is another than ours",
            std::string("Such a reply may not decode: the command ends as undecodable, and what "
                        "the daemon did must be read back."));
      }
    }
  }

  // Daemons of today answer a hook that is put on with its name, where our reply has data. Nothing
  // is sent to find that out: even a refused configureGateHook pauses the workers, and tasks
  // without a place get one then.
  void gateHook(bool described) {
    if (hookReplyDiffers_) return;  // told already
    if (described) {
      add(Health::well, "gate hooks",
          "the reply of configureGateHook is this protocol's, as the daemon describes itself");
    } else {
      add(Health::note, "gate hooks",
          "whether the reply to a hook that is put on decodes here shows when one is put on",
          hookAdvice);
    }
  }

  // Replies of harmless calls that carry what our protocol does not have.
  void newerFields() {
    std::vector<std::string> names;
    for (const Norv::GrpcRequestType type :
         {Norv::getVersion, Norv::listPlugins, Norv::listWorkers, Norv::listTcs, Norv::listDrivers,
          Norv::listPorts, Norv::listMclass, Norv::listModules, Norv::dumpMempool}) {
      const std::unique_ptr<Message> response = newResponse(type);
      const std::unique_ptr<Message> request = newRequest(type);
      const RequestInfo& info = requestInfos()[type - 1];
      const Direct::Reply reply = direct_.call(info.rpc, request->SerializeAsString());
      if (reply.status != grpc::StatusCode::OK) continue;
      if (!response->ParseFromString(reply.bytes)) {
        add(Health::unwell, "replies",
            "the reply of " + std::string(info.name) + " does not decode here",
            "Ask the daemon with a client of its own version for that.");
      } else if (carriesUnknown(*response)) {
        names.emplace_back(info.name);
      }
    }
    if (!names.empty()) {
      add(Health::note, "replies",
          "of " + listed(names) +
              " carry fields that this protocol does not have; they are skipped",
          std::string("The daemon is newer than this protocol. ") + hookAdvice);
    }
  }

  static bool carriesUnknown(const Message& message) {
    const auto* reflection = message.GetReflection();
    if (!reflection->GetUnknownFields(message).empty()) return true;
    std::vector<const google::protobuf::FieldDescriptor*> fields;
    reflection->ListFields(message, &fields);
    for (const auto* field : fields) {
      if (field->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_MESSAGE) continue;
      if (!field->is_repeated()) {
        if (carriesUnknown(reflection->GetMessage(message, field))) return true;
        continue;
      }
      for (int i = 0; i < reflection->FieldSize(message, field); ++i) {
        if (carriesUnknown(reflection->GetRepeatedMessage(message, field, i))) return true;
      }
    }
    return false;
  }

  void roundTrip() {
    constexpr int calls = 20;
    std::vector<double> milliseconds;
    for (int i = 0; i < calls; ++i) {
      const auto start = std::chrono::steady_clock::now();
      readVersion(direct_);
      milliseconds.push_back(
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
              .count());
    }
    std::sort(milliseconds.begin(), milliseconds.end());
    char text[96];
    std::snprintf(text, sizeof text, "%d calls: median %.2f ms, worst %.2f ms", calls,
                  milliseconds[calls / 2], milliseconds.back());
    constexpr double slow = 100;
    const bool slowly = milliseconds[calls / 2] > slow;
    add(slowly ? Health::unwell : Health::well, "round trip", text,
        slowly
            ? "Commands go one at a time: at this pace few go in a second. Run norvctl nearer to "
              "the daemon, or look at what keeps it busy."
            : "");
  }

  Direct& direct_;
  std::vector<Finding> findings_;
  bool hookReplyDiffers_ = false;
};

void print(const std::vector<Finding>& findings, bool asJson) {
  const Colours colours(coloursAt(STDOUT_FILENO));
  for (const Finding& one : findings) {
    if (asJson) {
      std::printf("{\"health\":\"%s\",\"about\":%s,\"text\":%s", healthName(one.health),
                  jsonText(one.about).c_str(), jsonText(one.text).c_str());
      if (!one.advice.empty()) std::printf(",\"advice\":%s", jsonText(one.advice).c_str());
      std::printf("}\n");
      continue;
    }
    const char* colour = one.health == Health::well   ? colours.good()
                         : one.health == Health::note ? colours.faint()
                                                      : colours.bad();
    std::printf("%s%-4s%s  %-10s  %s\n", colour, healthName(one.health), colours.end(),
                one.about.c_str(), one.text.c_str());
    if (!one.advice.empty()) std::printf("%18s%s\n", "", one.advice.c_str());
  }
}

int doctor(const DoctorArguments& arguments) {
  const Target target(arguments.target);
  Direct direct(target.host(), target.port(),
                std::chrono::ceil<std::chrono::milliseconds>(durationOf(arguments.timeoutSeconds)));
  std::vector<Finding> findings;
  int status = allOk;
  try {
    const Diagnosis first = diagnose(target.host(), target.port(), std::chrono::milliseconds(2000));
    if (first.reason == "answers" || first.reason == "proxy") {
      findings = Doctor(direct).examine();
      if (first.reason == "proxy") {
        findings.push_back({Health::unwell, "proxy", escaped(first.text),
                            "Set no_proxy for this host unless the proxy is wanted."});
      }
    } else {
      findings.push_back(
          {Health::unwell, "reach", escaped(direct.address()) + ": " + escaped(first.text), ""});
      status = lost;
    }
  } catch (const DirectError& error) {
    findings.push_back({Health::unwell, "reach", error.what(), ""});
    status = lost;
  }
  print(findings, arguments.asJson);
  const bool unwell = std::any_of(findings.begin(), findings.end(),
                                  [](const Finding& one) { return one.health == Health::unwell; });
  return status != allOk ? status : unwell ? static_cast<int>(refused) : static_cast<int>(allOk);
}

Action defineDoctor(CLI::App& command) {
  const auto arguments = std::make_shared<DoctorArguments>();
  command.add_flag("--json", arguments->asJson, "a JSON object per finding");
  addTarget(command, arguments->target);
  addTimeout(command, arguments->timeoutSeconds, "SECONDS to wait for each answer");
  return [arguments] { return doctor(*arguments); };
}

}  // namespace

Verb doctorVerb() {
  return {
      "doctor",
      "look whether a daemon is there and fits",
      {"Looks whether the host can be reached, which RPCs of the protocol the daemon has (as it "
       "describes itself by reflection, or by calls without effect), which replies differ from "
       "this protocol, its version and classes, and how long a round trip takes. Changes nothing. "
       "Where there is something to do, a sentence says what.",
       "Exit status 0: all is well; 2: something does not fit; 3: the daemon cannot be asked."},
      {{"norvctl doctor --standin", "of the stand-in daemon"},
       {"norvctl doctor --host switch1", "of another machine's"}},
      &defineDoctor};
}

}  // namespace Norvctl
