#include "Reflection.h"

#include <google/protobuf/empty.pb.h>
#include <google/protobuf/unknown_field_set.h>
#include <grpcpp/generic/generic_stub.h>

#include <vector>

namespace Norvctl {

namespace {

using google::protobuf::Empty;
using google::protobuf::FileDescriptorProto;
using google::protobuf::UnknownField;

// The messages of the reflection service are few and are written and read by field number: their
// definitions are compiled into gRPC's own library, and a process may hold them only once.
constexpr const char* method = "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo";
constexpr int requestSymbol = 4;     // file_containing_symbol
constexpr int responseFiles = 4;     // file_descriptor_response
constexpr int filesDescriptors = 1;  // file_descriptor_proto

std::vector<std::string> fieldsOf(const std::string& bytes, int number) {
  std::vector<std::string> values;
  Empty message;
  if (!message.ParseFromString(bytes)) return values;
  const auto& fields = message.GetReflection()->GetUnknownFields(message);
  for (int i = 0; i < fields.field_count(); ++i) {
    const UnknownField& field = fields.field(i);
    if (field.number() == number && field.type() == UnknownField::TYPE_LENGTH_DELIMITED) {
      values.push_back(field.length_delimited());
    }
  }
  return values;
}

std::string requestFor(const std::string& symbol) {
  Empty message;
  message.GetReflection()->MutableUnknownFields(&message)->AddLengthDelimited(requestSymbol,
                                                                              symbol);
  return message.SerializeAsString();
}

// The one answer to one request; empty without one.
std::string ask(const std::shared_ptr<grpc::Channel>& channel, const std::string& request) {
  grpc::GenericStub stub(channel);
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(2));
  grpc::CompletionQueue queue;
  const auto call = stub.PrepareCall(&context, method, &queue);
  void* tag = nullptr;
  bool ok = false;
  const auto done = [&] { return queue.Next(&tag, &ok) && ok; };
  call->StartCall(nullptr);
  if (!done()) return {};
  const grpc::Slice slice(request);
  call->WriteLast(grpc::ByteBuffer(&slice, 1), grpc::WriteOptions(), nullptr);
  if (!done()) return {};
  grpc::ByteBuffer response;
  call->Read(&response, nullptr);
  std::string bytes;
  std::vector<grpc::Slice> slices;
  if (done() && response.Dump(&slices).ok()) {
    for (const grpc::Slice& one : slices) {
      bytes.append(reinterpret_cast<const char*>(one.begin()), one.size());
    }
  }
  context.TryCancel();
  grpc::Status status;
  call->Finish(&status, nullptr);
  done();
  return bytes;
}

// ".bess.pb.X" as "bess.pb.X".
std::string withoutDot(const std::string& name) {
  return name.starts_with('.') ? name.substr(1) : name;
}

}  // namespace

std::optional<DescribedService> describeService(const std::shared_ptr<grpc::Channel>& channel,
                                                const std::string& service) {
  DescribedService described;
  bool found = false;
  for (const std::string& files : fieldsOf(ask(channel, requestFor(service)), responseFiles)) {
    for (const std::string& bytes : fieldsOf(files, filesDescriptors)) {
      FileDescriptorProto file;
      if (!file.ParseFromString(bytes)) continue;
      for (const auto& message : file.message_type()) {
        described.messages[file.package() + "." + message.name()] = message;
      }
      for (const auto& one : file.service()) {
        if (file.package() + "." + one.name() != service) continue;
        found = true;
        for (const auto& rpc : one.method()) {
          described.methods[rpc.name()] = {withoutDot(rpc.input_type()),
                                           withoutDot(rpc.output_type())};
        }
      }
    }
  }
  if (!found) return std::nullopt;
  return described;
}

}  // namespace Norvctl
