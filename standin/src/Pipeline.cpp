#include "Pipeline.h"

#include <algorithm>
#include <cerrno>

#include "Refusal.h"

namespace Standin {

namespace {

std::string gateText(std::uint16_t gate) {
  return std::to_string(gate);
}

}  // namespace

Module* Pipeline::find(const std::string& name) const {
  const auto found = modules_.find(name);
  return found == modules_.end() ? nullptr : found->second.get();
}

Module& Pipeline::existing(const std::string& name) const {
  Module* module = find(name);
  if (module == nullptr) throw Refusal(ENOENT, "No module '" + name + "' found");
  return *module;
}

Module& Pipeline::create(const bess::pb::CreateModuleRequest& request) {
  if (request.mclass().empty()) throw Refusal(EINVAL, "Missing 'mclass' field");
  const ModuleClass* moduleClass = findModuleClass(request.mclass());
  if (moduleClass == nullptr) throw Refusal(ENOENT, "No mclass '" + request.mclass() + "' found");
  if (find(request.name()) != nullptr)
    throw Refusal(EEXIST, "Module " + request.name() + " exists");

  auto module = std::make_unique<Module>();
  module->name =
      request.name().empty()
          ? names_.next(moduleClass->namePrefix(),
                        [this](const std::string& name) { return find(name) != nullptr; })
          : request.name();
  module->moduleClass = moduleClass;
  module->state = moduleClass->create(request.arg(), ports_);
  module->state->initialArg = request.arg();
  attributesChanged(*module);
  return *(modules_[module->name] = std::move(module));
}

void Pipeline::free(Module& module, std::uint16_t outputGate) {
  const auto found = module.outputs.find(outputGate);
  if (found == module.outputs.end()) return;
  Module& target = *found->second.target;
  const std::uint16_t inputNumber = found->second.inputGate;
  module.outputs.erase(found);
  const auto input = target.inputs.find(inputNumber);
  std::erase(input->second.sources, std::pair{&module, outputGate});
  if (input->second.sources.empty()) target.inputs.erase(input);
}

void Pipeline::destroy(Module& module) {
  while (!module.outputs.empty()) free(module, module.outputs.begin()->first);
  while (!module.inputs.empty()) {
    const auto source = module.inputs.begin()->second.sources.front();
    free(*source.first, source.second);
  }
  names_.freed(module.name);
  withMetadata_.erase(module.name);
  modules_.erase(module.name);
}

void Pipeline::connect(const bess::pb::ConnectModulesRequest& request) {
  Module& from = existing(request.m1());
  Module& to = existing(request.m2());
  const std::uint16_t output = gateCut(request.ogate());
  const std::uint16_t input = gateCut(request.igate());
  const std::string text = "Connection " + from.name + ":" + gateText(output) + "->" +
                           gateText(input) + ":" + to.name + " failed";
  if (output >= from.moduleClass->outputGates || input >= to.moduleClass->inputGates)
    throw Refusal(EINVAL, text);
  if (from.outputs.count(output) > 0) throw Refusal(EBUSY, text);
  OutputGate& gate = from.outputs[output];
  gate.target = &to;
  gate.inputGate = input;
  if (!request.skip_default_hooks()) gate.hooks.add("Track", "track0");
  to.inputs[input].sources.emplace_back(&from, output);
}

void Pipeline::disconnect(const bess::pb::DisconnectModulesRequest& request) {
  if (request.name().empty()) throw Refusal(EINVAL, "Missing 'name' field");
  Module& module = existing(request.name());
  const std::uint16_t output = gateCut(request.ogate());
  if (output >= module.moduleClass->outputGates)
    throw Refusal(EINVAL, "Disconnection " + module.name + ":" + gateText(output) + " failed");
  free(module, output);
}

}  // namespace Standin
