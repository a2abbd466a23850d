#pragma once

#include <google/protobuf/descriptor.pb.h>
#include <grpcpp/grpcpp.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace Norvctl {

// A service as a server with reflection describes it.
struct DescribedService {
  struct Method {
    std::string request;  // message names with their package
    std::string response;
  };
  std::map<std::string, Method> methods;  // by name
  std::map<std::string, google::protobuf::DescriptorProto> messages;
};

// None where the server offers no reflection, or has no such service.
std::optional<DescribedService> describeService(const std::shared_ptr<grpc::Channel>& channel,
                                                const std::string& service);

}  // namespace Norvctl
