// Every message against the tables of the daemon's protocol, where those stand beside the checkout.

#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <bess/pb/service.pb.h>

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

struct Row {
  std::string message, number, field, label, type, oneof;
};

const std::string tablePath = std::string(NORV_PROTOCOL_TABLES) + "/messages.tsv";

std::vector<Row> tableRows() {
  std::ifstream file(tablePath);
  std::vector<Row> rows;
  std::string line;
  std::getline(file, line);  // The column titles.
  while (std::getline(file, line)) {
    std::istringstream cells(line);
    std::string group;
    Row row;
    std::getline(cells, group, '\t');
    std::getline(cells, row.message, '\t');
    std::getline(cells, row.number, '\t');
    std::getline(cells, row.field, '\t');
    std::getline(cells, row.label, '\t');
    std::getline(cells, row.type, '\t');
    std::getline(cells, row.oneof, '\t');
    rows.push_back(row);
  }
  return rows;
}

const Descriptor* messageOf(const std::string& name) {
  return bess::pb::EmptyRequest::descriptor()->file()->pool()->FindMessageTypeByName("bess.pb." +
                                                                                     name);
}

std::string typeName(const FieldDescriptor& field) {
  if (field.is_map()) {
    const Descriptor* entry = field.message_type();
    return "map<" + typeName(*entry->field(0)) + ", " + typeName(*entry->field(1)) + ">";
  }
  if (field.type() != FieldDescriptor::TYPE_MESSAGE) return field.type_name();
  const std::string name = field.message_type()->full_name();
  const std::string prefix = "bess.pb.";
  return name.rfind(prefix, 0) == 0 ? name.substr(prefix.size()) : name;
}

std::string labelName(const FieldDescriptor& field) {
  if (field.is_map()) return "map";
  return field.is_repeated() ? "repeated" : "singular";
}

std::string oneofName(const FieldDescriptor& field) {
  const auto* oneof = field.real_containing_oneof();
  return oneof == nullptr ? "-" : oneof->name();
}

class Messages : public testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(tablePath))
      GTEST_SKIP() << "The protocol tables are not beside this checkout: " << tablePath;
    rows_ = tableRows();
    ASSERT_GT(rows_.size(), 400u) << "The table is cut short: " << tablePath;
  }

  std::vector<Row> rows_;
};

}  // namespace

TEST_F(Messages, FieldsAgreeWithTheTable) {
  for (const Row& row : rows_) {
    SCOPED_TRACE(row.message + "." + row.field);
    const Descriptor* message = messageOf(row.message);
    ASSERT_NE(message, nullptr);
    if (row.number == "-") {
      EXPECT_EQ(message->field_count(), 0);
      continue;
    }
    const FieldDescriptor* field = message->FindFieldByNumber(std::stoi(row.number));
    ASSERT_NE(field, nullptr);
    EXPECT_EQ(field->name(), row.field);
    EXPECT_EQ(labelName(*field), row.label);
    EXPECT_EQ(typeName(*field), row.type);
    EXPECT_EQ(oneofName(*field), row.oneof);
  }
}

TEST_F(Messages, HaveNoFieldBesideTheTable) {
  std::map<std::string, int> fields;
  for (const Row& row : rows_) fields[row.message] += row.number == "-" ? 0 : 1;
  for (const auto& [name, count] : fields) {
    const Descriptor* message = messageOf(name);
    ASSERT_NE(message, nullptr) << name;
    EXPECT_EQ(message->field_count(), count) << name;
  }
}

TEST_F(Messages, AreNoMoreThanTheTableAndTheMacAddressRequest) {
  std::set<std::string> known = {"bess.pb.MacAddressRequest"};
  for (const Row& row : rows_) known.insert("bess.pb." + row.message);
  const auto* service =
      bess::pb::EmptyRequest::descriptor()->file()->pool()->FindFileByName("bess/pb/service.proto");
  ASSERT_NE(service, nullptr);
  for (int i = 0; i < service->dependency_count(); ++i) {
    const auto* file = service->dependency(i);
    for (int m = 0; m < file->message_type_count(); ++m)
      EXPECT_TRUE(known.count(file->message_type(m)->full_name()))
          << file->message_type(m)->full_name();
  }
}

TEST_F(Messages, AreProto3) {
  for (const Row& row : rows_)
    EXPECT_EQ(messageOf(row.message)->file()->syntax(),
              google::protobuf::FileDescriptor::SYNTAX_PROTO3)
        << row.message;
}
