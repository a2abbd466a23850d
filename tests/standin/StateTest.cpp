// A state that comes back: loaded from a recording, dumped, reset and loaded again, or led to once
// more by the same calls, it answers every question in the same way.

#include <fstream>
#include <iterator>

#include "Fixture.h"
#include "Replay.h"

using namespace bess::pb;

class StandinState : public StandinTest::StandinFixture {
 protected:
  StandinState() : StandinFixture(options()) {}
  static Standin::Options options() {
    Standin::Options options;
    options.newerReplies = true;
    return options;
  }

  // Everything the daemon tells, a line each, without times.
  std::string told() {
    std::string all = text(ask(&Stub::ListPlugins)) + text(ask(&Stub::ListWorkers));
    const auto ports = ask(&Stub::ListPorts);
    all += text(ports);
    for (const auto& port : ports.ports()) all += ofPort(port.name());
    const auto modules = ask(&Stub::ListModules);
    all += text(modules);
    for (const auto& module : modules.modules()) all += ofModule(module.name());
    for (const auto& status : trafficClasses()) all += text(status);
    return all;
  }

  std::string ofPort(const std::string& name) {
    GetPortConfRequest conf;
    conf.set_name(name);
    GetLinkStatusRequest link;
    link.set_name(name);
    return text(call(&Stub::GetPortConf, conf)) + text(call(&Stub::GetLinkStatus, link));
  }

  std::string ofModule(const std::string& name) {
    GetModuleInfoRequest request;
    request.set_name(name);
    auto info = call(&Stub::GetModuleInfo, request);
    for (auto& gate : *info.mutable_igates()) gate.clear_timestamp();
    for (auto& gate : *info.mutable_ogates()) gate.clear_timestamp();
    std::string all = text(info);
    for (const char* question : {"get_initial_arg", "get_runtime_config"})
      all += text(command(name, question, EmptyArg()));
    return all;
  }

  static std::string text(const google::protobuf::Message& message) {
    return message.ShortDebugString() + "\n";
  }

  void expectComesBack(const char* folder) {
    const auto files = StandinTest::recordings(folder);
    if (files.empty()) GTEST_SKIP() << "There are no recordings at " << folder;
    for (const auto& file : files) {
      std::ifstream in(file);
      server_->load({std::istreambuf_iterator<char>(in), {}});
      const std::string before = told();
      const std::string dump = server_->dump();
      ask(&Stub::ResetAll);
      ASSERT_NO_THROW(server_->load(dump)) << file << dump.substr(0, 6000);
      EXPECT_EQ(told(), before) << file;
      EXPECT_EQ(server_->dump(), dump) << file;
    }
  }
};

TEST_F(StandinState, OfAScriptedRecordingComesBack) {
  expectComesBack(STANDIN_RECORDINGS "/recordings");
}

TEST_F(StandinState, OfARandomRecordingComesBack) {
  expectComesBack(STANDIN_RECORDINGS "/recordings-random");
}

TEST_F(StandinState, ComesBackWithTheSameCallsAfterAReset) {
  std::string states[2];
  for (std::string& state : states) {
    createPort("", "net_null0", 2);
    createPort("named", "net_null1");
    PortIncArg arg;
    arg.set_port("pmd_port0");
    createModule("PortInc", "", arg);
    createModule("Queue");
    createModule("Bypass", "bypass1");
    createModule("Bypass");
    createModule("Bypass");
    createModule("Sink");
    EXPECT_EQ(connect("port_inc0", "queue0"), 0);
    EXPECT_EQ(connect("queue0", "bypass2", 0, 3), 0);
    EXPECT_EQ(connect("bypass2", "sink0"), 0);
    addWorker(0);
    EXPECT_EQ(addTc("top", "round_robin"), 0);
    ask(&Stub::ResumeAll);
    state = ask(&Stub::ListModules).ShortDebugString() + ask(&Stub::ListWorkers).ShortDebugString();
    for (const char* name : {"port_inc0", "queue0", "bypass0", "bypass1", "bypass2", "sink0"})
      state += ofModule(name);
    const auto ports = ask(&Stub::ListPorts);
    for (const auto& port : ports.ports()) state += port.name() + port.driver();
    EXPECT_EQ(trafficClasses().size(), 5u);
    ask(&Stub::ResetAll);
  }
  EXPECT_EQ(states[0], states[1]);
}
