#include <regex>

#include <Bess/Facts.h>
#include <Norv/State/ClassTable.h>
#include <bess/pb/module_arg.pb.h>
#include <bess/pb/service.grpc.pb.h>

#include "SwitchFixture.h"

// The table of classes beside the protocol's and beside the stand-in, which has one of its own.

namespace Norv::State {

TEST(ClassTable, HasEveryClassOfTheProtocolInItsOrder) {
  std::vector<std::string> here, there;
  for (const ClassRow& row : classRows()) here.emplace_back(row.name);
  for (const auto& one : Bess::moduleClasses()) there.emplace_back(one.name);
  EXPECT_EQ(here, there);
}

TEST(ClassTable, NamesFieldsAndCommandsThatAreThere) {
  for (const ClassRow& row : classRows()) {
    const auto* argument = argumentOf(row);
    for (const Setting& setting : row.settings) {
      const auto fields = words(setting.fields);
      const auto commandFields = words(setting.commandFields);
      ASSERT_EQ(fields.size(), commandFields.size()) << row.name;
      const auto* command = argumentOf(row, setting.command);
      ASSERT_NE(command, nullptr) << row.name << " " << setting.command;
      for (std::size_t i = 0; i < fields.size(); ++i) {
        EXPECT_NE(command->FindFieldByName(commandFields[i]), nullptr)
            << row.name << commandFields[i];
        if (setting.inArgument()) {
          EXPECT_NE(argument->FindFieldByName(fields[i]), nullptr) << row.name << fields[i];
        }
      }
    }
    if (row.argumentTable != nullptr) {
      EXPECT_NE(argument->FindFieldByName(std::string(row.argumentTable->field)), nullptr);
      for (const auto command :
           {row.argumentTable->remove, row.argumentTable->clear, row.argumentTable->whole}) {
        if (command.empty()) continue;
        EXPECT_NE(argumentOf(row, command), nullptr) << row.name << command;
      }
    }
    if (row.entryTable != nullptr) {
      for (const std::string& key : words(row.entryTable->key)) {
        EXPECT_NE(entryOf(row)->FindFieldByName(key), nullptr) << row.name << key;
      }
    }
    if (!row.port.empty()) {
      EXPECT_NE(argument->FindFieldByName(std::string(row.port)), nullptr);
    }
  }
}

// A comment that lists words in quotes is of a field that takes no others.
TEST(ClassTable, WordsAreThoseOfTheComments) {
  int seen = 0;
  const auto* file = bess::pb::FlowGenArg::descriptor()->file();
  const std::regex quoted("\"([^\"]+)\"");
  for (int i = 0; i < file->message_type_count(); ++i) {
    for (int j = 0; j < file->message_type(i)->field_count(); ++j) {
      const auto& field = *file->message_type(i)->field(j);
      if (field.cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_STRING) continue;
      const std::string comment = Bess::comment(field);
      const std::vector<std::string> listed(
          std::sregex_token_iterator(comment.begin(), comment.end(), quoted, 1),
          std::sregex_token_iterator());
      EXPECT_EQ(wordsFor(field), listed) << field.full_name() << ": " << comment;
      seen += !listed.empty();
    }
  }
  EXPECT_EQ(seen, 4);
}

// The last gate of each can be connected, and none behind it.
TEST(ClassTable, GatesAreThoseOfTheStandin) {
  TestSwitch daemon;
  const auto stub = bess::pb::BESSControl::NewStub(daemon.server().inProcessChannel());
  const auto create = [&](const std::string& moduleClass, const std::string& name) {
    grpc::ClientContext context;
    bess::pb::CreateModuleRequest request;
    request.set_mclass(moduleClass);
    request.set_name(name);
    bess::pb::CreateModuleResponse response;
    EXPECT_TRUE(stub->CreateModule(&context, request, &response).ok());
    return response.error().code() == 0;
  };
  const auto connects = [&](const std::string& from, std::uint32_t ogate, const std::string& to,
                            std::uint32_t igate) {
    grpc::ClientContext context;
    bess::pb::ConnectModulesRequest request;
    request.set_m1(from);
    request.set_m2(to);
    request.set_ogate(ogate);
    request.set_igate(igate);
    bess::pb::EmptyResponse response;
    EXPECT_TRUE(stub->ConnectModules(&context, request, &response).ok());
    return response.error().code() == 0;
  };
  create("Bypass", "any");
  std::uint32_t next = 0;
  int seen = 0;
  for (const ClassRow& row : classRows()) {
    const std::string name = "m_" + std::string(row.name);
    if (!create(std::string(row.name), name)) continue;  // it needs an argument
    ++seen;
    if (row.outputs > 0) {
      EXPECT_TRUE(connects(name, row.outputs - 1, "any", 0)) << row.name;
    }
    EXPECT_FALSE(connects(name, row.outputs, "any", 0)) << row.name;
    if (row.inputs > 0) {
      EXPECT_TRUE(connects("any", next++, name, row.inputs - 1)) << row.name;
    }
    EXPECT_FALSE(connects("any", next++, name, row.inputs)) << row.name;
  }
  EXPECT_GT(seen, 45);
  // A class has tasks when its module has one.
  const LiveSwitch live = daemon.read();
  for (const auto& [name, module] : live.modules) {
    EXPECT_EQ(classRow(module.moduleClass)->tasks, !module.tasks.empty()) << name;
  }
}

}  // namespace Norv::State
