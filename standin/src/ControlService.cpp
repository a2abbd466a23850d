#include "ControlService.h"

#include <stdexcept>

namespace Standin {

grpc::Status ControlService::AddFaults(grpc::ServerContext* context,
                                       const standin::AddFaultsRequest* request,
                                       standin::Faults* answer) {
  std::vector<Fault> faults;
  try {
    for (const std::string& rule : request->rules()) faults.push_back(Fault::parse(rule));
  } catch (const std::invalid_argument& error) {
    return {grpc::StatusCode::INVALID_ARGUMENT, error.what()};
  }
  for (const Fault& fault : faults) service_.faults().add(fault);
  const standin::Nothing nothing;
  return ListFaults(context, &nothing, answer);
}

grpc::Status ControlService::ListFaults(grpc::ServerContext*, const standin::Nothing*,
                                        standin::Faults* answer) {
  for (const FaultCount& count : service_.faults().counts()) {
    standin::Faults::Fault& fault = *answer->add_faults();
    fault.set_rule(count.rule);
    fault.set_matched(count.matched);
    fault.set_injected(count.injected);
  }
  return grpc::Status::OK;
}

grpc::Status ControlService::ClearFaults(grpc::ServerContext*, const standin::Nothing*,
                                         standin::Nothing*) {
  service_.faults().clear();
  return grpc::Status::OK;
}

grpc::Status ControlService::SetPace(grpc::ServerContext*, const standin::Pace* wanted,
                                     standin::Pace* answer) {
  Pace pace = service_.pace();
  try {
    if (wanted->has_latency()) pace.latencyIs(wanted->latency());
    if (wanted->has_rate()) pace.rateIs(wanted->rate());
  } catch (const std::invalid_argument& error) {
    return {grpc::StatusCode::INVALID_ARGUMENT, error.what()};
  }
  if (wanted->has_latency() || wanted->has_rate()) service_.paceIs(pace);
  answer->set_latency(
      std::to_string(pace.latencyMs) +
      (pace.maxLatencyMs > pace.latencyMs ? ".." + std::to_string(pace.maxLatencyMs) : ""));
  answer->set_rate(pace.rate);
  return grpc::Status::OK;
}

grpc::Status ControlService::Dump(grpc::ServerContext*, const standin::Nothing*,
                                  standin::State* state) {
  try {
    state->set_lines(service_.dump());
  } catch (const std::runtime_error& error) {
    return {grpc::StatusCode::FAILED_PRECONDITION, error.what()};
  }
  return grpc::Status::OK;
}

grpc::Status ControlService::Load(grpc::ServerContext*, const standin::State* state,
                                  standin::Nothing*) {
  try {
    service_.load(state->lines());
  } catch (const std::invalid_argument& error) {
    return {grpc::StatusCode::INVALID_ARGUMENT, error.what()};
  }
  return grpc::Status::OK;
}

}  // namespace Standin
