// The service against the table of requests: the same calls, with the same messages, and no others.

#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <string>

#include <bess/pb/service.pb.h>

namespace {

struct ServiceRow {
  int number;
  const char* rpc;
  const char* request;
  const char* response;
};

constexpr ServiceRow serviceRows[] = {
#define NORV_REQUEST(number, name, rpc, request, response) {number, #rpc, #request, #response},
#include <Norv/GrpcRequests.def>
};

const google::protobuf::ServiceDescriptor* service() {
  const auto* file =
      bess::pb::EmptyRequest::descriptor()->file()->pool()->FindFileByName("bess/pb/service.proto");
  return file == nullptr ? nullptr : file->FindServiceByName("BESSControl");
}

}  // namespace

TEST(Service, HasTheNameThatDaemonsAnswerTo) {
  ASSERT_NE(service(), nullptr);
  EXPECT_EQ(service()->full_name(), "bess.pb.BESSControl");
}

TEST(Service, HasOneMethodPerRequest) {
  ASSERT_NE(service(), nullptr);
  EXPECT_EQ(service()->method_count(), static_cast<int>(std::size(serviceRows)));
}

TEST(Service, MethodsTakeAndAnswerTheMessagesOfTheirRow) {
  ASSERT_NE(service(), nullptr);
  for (const ServiceRow& row : serviceRows) {
    SCOPED_TRACE(row.rpc);
    const auto* method = service()->FindMethodByName(row.rpc);
    ASSERT_NE(method, nullptr);
    EXPECT_EQ(method->input_type()->full_name(), std::string("bess.pb.") + row.request);
    EXPECT_EQ(method->output_type()->full_name(), std::string("bess.pb.") + row.response);
    EXPECT_FALSE(method->client_streaming());
    EXPECT_FALSE(method->server_streaming());
  }
}

TEST(Service, RequestsAreNumberedInOrder) {
  int expected = 1;
  for (const ServiceRow& row : serviceRows) EXPECT_EQ(row.number, expected++) << row.rpc;
}

TEST(Service, MacAddressRequestNamesPortAndAddress) {
  const auto* message = bess::pb::MacAddressRequest::descriptor();
  ASSERT_EQ(message->field_count(), 2);
  ASSERT_NE(message->FindFieldByNumber(1), nullptr);
  ASSERT_NE(message->FindFieldByNumber(2), nullptr);
  EXPECT_EQ(message->FindFieldByNumber(1)->name(), "name");
  EXPECT_EQ(message->FindFieldByNumber(2)->name(), "mac_addr");
}
