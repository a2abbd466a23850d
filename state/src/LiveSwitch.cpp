#include <google/protobuf/unknown_field_set.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <Norv/State/ClassTable.h>
#include <Norv/State/LiveSwitch.h>
#include <bess/pb/service.grpc.pb.h>

#include "Modules.h"

namespace Norv::State {

namespace {

using bess::pb::BESSControl;
using google::protobuf::UnknownField;
using google::protobuf::UnknownFieldSet;

constexpr const char* workerTop = "!default_rr_";

// Daemons of today tell more than our messages have, in fields of these numbers.
namespace newer {
constexpr int incQueues = 4, outQueues = 5, incSize = 6, outSize = 7, portArgument = 8;
constexpr int inputHook = 8, outputHook = 9;
}  // namespace newer

const UnknownFieldSet& beyond(const google::protobuf::Message& message) {
  return message.GetReflection()->GetUnknownFields(message);
}

std::optional<std::uint64_t> numberIn(const google::protobuf::Message& message, int field) {
  const UnknownFieldSet& fields = beyond(message);
  for (int i = 0; i < fields.field_count(); ++i) {
    const UnknownField& one = fields.field(i);
    if (one.number() == field && one.type() == UnknownField::TYPE_VARINT) return one.varint();
  }
  return {};
}

class SwitchReader {
 public:
  SwitchReader(const std::shared_ptr<grpc::Channel>& channel, std::chrono::milliseconds patience)
      : stub_(BESSControl::NewStub(channel)), patience_(patience) {}

  LiveSwitch read() {
    live_.version = told("getVersion", &BESSControl::Stub::GetVersion, empty_).version();
    const auto plugins = told("listPlugins", &BESSControl::Stub::ListPlugins, empty_);
    live_.plugins.insert(plugins.paths().begin(), plugins.paths().end());
    const auto classes = told("listMclass", &BESSControl::Stub::ListMclass, empty_);
    live_.offer.moduleClasses.insert(classes.names().begin(), classes.names().end());
    const auto drivers = told("listDrivers", &BESSControl::Stub::ListDrivers, empty_);
    live_.offer.drivers.insert(drivers.driver_names().begin(), drivers.driver_names().end());
    readWorkers();
    readPorts();
    readModules();
    readTrafficClasses();
    return std::move(live_);
  }

 private:
  template <class Request, class Response>
  Response ask(const char* name,
               grpc::Status (BESSControl::Stub::*rpc)(grpc::ClientContext*, const Request&,
                                                      Response*),
               const Request& request) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + patience_);
    Response response;
    const grpc::Status status = (stub_.get()->*rpc)(&context, request, &response);
    if (!status.ok()) {
      throw ReadError(
          status.error_code(),
          std::string(name) + " failed: " +
              (status.error_message().empty() ? "status " + std::to_string(status.error_code())
                                              : status.error_message()));
    }
    return response;
  }

  // The same of a question that there is no reason to refuse: half an answer is none.
  template <class Request, class Response>
  Response told(const char* name,
                grpc::Status (BESSControl::Stub::*rpc)(grpc::ClientContext*, const Request&,
                                                       Response*),
                const Request& request) {
    Response response = ask(name, rpc, request);
    if (response.error().code() != 0) refused(name, response.error());
    return response;
  }
  [[noreturn]] static void refused(const std::string& name, const bess::pb::Error& error) {
    throw ReadError(
        grpc::StatusCode::UNKNOWN,
        name + " was refused: error " + std::to_string(error.code()) + ": " + error.errmsg());
  }
  // What was listed a moment ago may have gone.
  static bool gone(const std::string& name, const bess::pb::Error& error) {
    if (error.code() == 0) return false;
    if (error.code() != ENOENT) refused(name, error);
    return true;
  }

  void readWorkers() {
    const auto reply = told("listWorkers", &BESSControl::Stub::ListWorkers, empty_);
    for (const auto& status : reply.workers_status()) {
      Worker& worker = live_.workers[status.wid()];
      worker.core = status.core();
      worker.running = status.running();
    }
  }

  void readPorts() {
    const auto reply = told("listPorts", &BESSControl::Stub::ListPorts, empty_);
    for (const auto& shown : reply.ports()) {
      Port port;
      port.driver = shown.driver();
      port.mac = shown.mac_addr();
      port.incQueues = numberIn(shown, newer::incQueues);
      port.outQueues = numberIn(shown, newer::outQueues);
      port.incSize = numberIn(shown, newer::incSize);
      port.outSize = numberIn(shown, newer::outSize);
      const UnknownFieldSet& fields = beyond(shown);
      for (int i = 0; i < fields.field_count(); ++i) {
        const UnknownField& field = fields.field(i);
        if (field.number() != newer::portArgument ||
            field.type() != UnknownField::TYPE_LENGTH_DELIMITED) {
          continue;
        }
        Any arg;
        if (arg.ParseFromString(field.length_delimited())) port.arg = arg;
      }
      // One that tells these tells hooks, too, where there are any.
      live_.tellsHooks = live_.tellsHooks || port.incQueues.has_value();
      // A daemon that tells queues tells an argument that is empty by leaving it out.
      if (port.incQueues && !port.arg) port.arg = Any();
      if (readPortConf(shown.name(), port)) live_.ports[shown.name()] = std::move(port);
    }
  }

  // False when the port has gone.
  bool readPortConf(const std::string& name, Port& port) {
    bess::pb::GetPortConfRequest request;
    request.set_name(name);
    const auto reply = ask("getPortConf", &BESSControl::Stub::GetPortConf, request);
    if (gone("getPortConf", reply.error())) return false;
    // The address is the device's own or made up, unless it was set; nobody tells which.
    if (reply.conf().mtu() != 0) port.mtu = reply.conf().mtu();
    port.adminUp = reply.conf().admin_up();
    return true;
  }

  void readModules() {
    const auto reply = told("listModules", &BESSControl::Stub::ListModules, empty_);
    for (const auto& shown : reply.modules()) {
      bess::pb::GetModuleInfoRequest request;
      request.set_name(shown.name());
      const auto info = ask("getModuleInfo", &BESSControl::Stub::GetModuleInfo, request);
      if (gone("getModuleInfo", info.error())) continue;
      Module module;
      module.moduleClass = shown.mclass();
      const auto arg = command(shown.name(), "get_initial_arg");
      if (gone("get_initial_arg of " + shown.name(), arg.error())) continue;
      module.arg = arg.data();
      if (!readRuntime(shown.name(), module)) continue;
      live_.modules[shown.name()] = std::move(module);
      // These tell how much is in them at the moment.
      const bool moves = shown.mclass() == "Queue" || shown.mclass() == "FlowGen";
      if (!moves) live_.descriptions[shown.name()] = shown.desc();
      readGates(info);
    }
    // What a gate leads to may have gone in the meantime.
    std::erase_if(live_.connections, [&](const auto& one) {
      return !live_.modules.contains(one.first.module) ||
             !live_.modules.contains(one.second.module);
    });
    std::erase_if(live_.hooks,
                  [&](const auto& one) { return !live_.modules.contains(one.first.gate.module); });
  }

  bess::pb::CommandResponse command(const std::string& name, const char* word) {
    bess::pb::CommandRequest request;
    request.set_name(name);
    request.set_cmd(word);
    request.mutable_arg()->PackFrom(bess::pb::EmptyArg());
    return ask("moduleCommand", &BESSControl::Stub::ModuleCommand, request);
  }

  // What get_runtime_config tells, of settings and of fields of the argument; false when the module
  // has gone.
  bool readRuntime(const std::string& name, Module& module) {
    const ClassRow* row = classRow(module.moduleClass);
    if (row == nullptr || !row->readsBack) return true;
    const auto told = command(name, "get_runtime_config");
    if (told.error().code() == EOPNOTSUPP) return true;
    if (gone("get_runtime_config of " + name, told.error())) return false;
    const auto config = unpacked(told.data());
    if (!config) return true;
    std::unique_ptr<Message> argument;
    if (const auto* type = argumentOf(*row)) argument = newMessage(*type);
    if (module.arg && argument && !module.arg->value().empty()) {
      argument->ParseFromString(module.arg->value());
    }
    bool changed = false;
    const auto& type = *config->GetDescriptor();
    for (int i = 0; i < type.field_count(); ++i) {
      const auto* field = type.field(i);
      const bool number = field->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_UINT64;
      const bool setting = std::any_of(
          row->settings.begin(), row->settings.end(),
          [&](const Setting& one) { return !one.inArgument() && one.fields == field->name(); });
      if (setting && number) {
        module.settings[field->name()] = config->GetReflection()->GetUInt64(*config, field);
      } else if (argument && argument->GetDescriptor()->FindFieldByName(field->name())) {
        takeField(*argument, *config, *field);
        changed = true;
      }
    }
    if (!changed) return true;
    module.arg.emplace().PackFrom(*argument);
    module.arg->set_value(serialized(*argument));
    return true;
  }

  static void takeField(Message& argument, const Message& config,
                        const google::protobuf::FieldDescriptor& field) {
    const auto* into = argument.GetDescriptor()->FindFieldByName(field.name());
    argument.GetReflection()->ClearField(&argument, into);
    // It has the same number in both.
    if (into->number() != field.number()) return;
    argument.MergeFromString(only({field.name()}, config)->SerializeAsString());
  }

  void readGates(const bess::pb::GetModuleInfoResponse& info) {
    for (const auto& gate : info.igates()) {
      for (const auto& from : gate.ogates()) {
        live_.connections[{from.name(), from.ogate()}] = {info.name(), gate.igate()};
      }
      readHooks(gate, {info.name(), gate.igate()}, false, newer::inputHook);
    }
    for (const auto& gate : info.ogates()) {
      live_.connections[{info.name(), gate.ogate()}] = {gate.name(), gate.igate()};
      if (gate.timestamp() != 0) {
        live_.traffic[{info.name(), gate.ogate()}] = {gate.pkts(), gate.bytes(), gate.timestamp()};
      }
      readHooks(gate, {info.name(), gate.ogate()}, true, newer::outputHook);
    }
  }

  template <class ShownGate>
  void readHooks(const ShownGate& shown, const Gate& gate, bool output, int newerNumber) {
    std::vector<bess::pb::GetModuleInfoResponse::GateHook> hooks(shown.gatehooks().begin(),
                                                                 shown.gatehooks().end());
    const UnknownFieldSet& fields = beyond(shown);
    for (int i = 0; i < fields.field_count(); ++i) {
      const UnknownField& field = fields.field(i);
      if (field.number() != newerNumber || field.type() != UnknownField::TYPE_LENGTH_DELIMITED)
        continue;
      if (!hooks.emplace_back().ParseFromString(field.length_delimited())) hooks.pop_back();
    }
    for (const auto& hook : hooks) {
      live_.tellsHooks = true;
      auto& arg = live_.hooks[{gate, output, hook.class_name(), hook.hook_name()}];
      if (hook.class_name() == defaultHookClass) arg = Any();  // its argument only adds counters
    }
    // The counters of the default one have a time.
    if (output && hooks.empty() && shown.timestamp() != 0) {
      live_.hooks[{gate, output, defaultHookClass, defaultHookName}] = Any();
    }
  }

  void readTrafficClasses() {
    const auto reply = [&] {
      bess::pb::ListTcsRequest request;
      request.set_wid(-1);
      return told("listTcs", &BESSControl::Stub::ListTcs, request);
    }();
    std::map<std::string, std::map<std::uint64_t, Place>> leaves;
    for (const auto& status : reply.classes_status()) {
      const auto& shown = status.class_();
      Place place;
      const bool top = status.parent().empty() || status.parent().rfind(workerTop, 0) == 0;
      if (top) {
        place.worker = shown.wid();
      } else {
        place.parent = status.parent();
        if (shown.arg_case() == bess::pb::TrafficClass::kPriority)
          place.priority = shown.priority();
        if (shown.arg_case() == bess::pb::TrafficClass::kShare) place.share = shown.share();
      }
      if (shown.policy() == "leaf") {
        leaves[shown.leaf_module_name()][shown.leaf_module_taskid()] = place;
        continue;
      }
      if (shown.name().empty() || shown.name()[0] == '!') continue;
      TrafficClass& entered = live_.trafficClasses[shown.name()];
      entered.policy = shown.policy();
      entered.place = place;
      for (const auto& [resource, amount] : shown.limit()) {
        entered.resource = resource;
        entered.limit = amount;
      }
      for (const auto& [resource, amount] : shown.max_burst()) entered.maxBurst = amount;
    }
    fillZeros();
    enterTasks(leaves);
  }

  // A message leaves out what is 0: below a priority class there is one.
  void fillZeros() {
    for (auto& [name, entered] : live_.trafficClasses) fillZero(entered.place);
  }
  void fillZero(Place& place) const {
    const auto parent = live_.trafficClasses.find(place.parent);
    if (parent == live_.trafficClasses.end()) return;
    if (parent->second.policy == "priority" && !place.priority) place.priority = 0;
  }

  void enterTasks(const std::map<std::string, std::map<std::uint64_t, Place>>& leaves) {
    for (const auto& [name, tasks] : leaves) {
      const auto module = live_.modules.find(name);
      if (module == live_.modules.end()) continue;
      auto& places = module->second.tasks;
      places.resize(tasks.rbegin()->first + 1);
      for (const auto& [number, place] : tasks) {
        places[number] = place;
        fillZero(*places[number]);
      }
      if (places.size() != tasks.size()) live_.lostTasks.insert(name);
    }
    for (const auto& [name, module] : live_.modules) {
      const ClassRow* row = classRow(module.moduleClass);
      if (row != nullptr && row->tasks && module.tasks.empty()) live_.lostTasks.insert(name);
    }
  }

  const std::unique_ptr<BESSControl::Stub> stub_;
  const std::chrono::milliseconds patience_;
  const bess::pb::EmptyRequest empty_;
  LiveSwitch live_;
};

}  // namespace

LiveSwitch readSwitch(const std::shared_ptr<grpc::Channel>& channel,
                      std::chrono::milliseconds patience) {
  return SwitchReader(channel, patience).read();
}

Switch described(const LiveSwitch& live) {
  Switch result = live;
  for (auto& [name, module] : result.modules) {
    for (auto& place : module.tasks) {
      const bool usual = place && place->parent.empty() && live.workers.size() <= 1;
      if (place && (usual || !place->stated())) place.reset();
    }
  }
  for (auto& [name, port] : result.ports) port.mac.reset();
  return result;
}

Notes besideDocument(const LiveSwitch& live) {
  Notes notes;
  for (const auto& [name, port] : live.ports) {
    if (!port.incQueues) notes[{Kind::port, name}] = "the daemon does not tell its queues";
  }
  for (const std::string& name : live.lostTasks) {
    notes[{Kind::module, name}] =
        "its task has lost its traffic class; where this is applied it has one";
  }
  return notes;
}

}  // namespace Norv::State
