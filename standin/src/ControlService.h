#pragma once

#include <standin/control.grpc.pb.h>

#include "Service.h"

namespace Standin {

// What the stand-in can be told while it runs, as a service.
class ControlService final : public standin::Control::Service {
 public:
  explicit ControlService(Standin::Service& service) : service_(service) {}

  grpc::Status AddFaults(grpc::ServerContext*, const standin::AddFaultsRequest* request,
                         standin::Faults* answer) override;
  grpc::Status ListFaults(grpc::ServerContext*, const standin::Nothing*,
                          standin::Faults* answer) override;
  grpc::Status ClearFaults(grpc::ServerContext*, const standin::Nothing*,
                           standin::Nothing*) override;
  grpc::Status SetPace(grpc::ServerContext*, const standin::Pace* wanted,
                       standin::Pace* answer) override;
  grpc::Status Dump(grpc::ServerContext*, const standin::Nothing*, standin::State* state) override;
  grpc::Status Load(grpc::ServerContext*, const standin::State* state, standin::Nothing*) override;

 private:
  Standin::Service& service_;
};

}  // namespace Standin
