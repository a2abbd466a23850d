#pragma once

#include <Standin/Server.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <Norv/State/Document.h>
#include <Norv/State/Execution.h>
#include <Norv/State/LiveSwitch.h>
#include <Norv/State/Plan.h>
#include <Norv/State/Record.h>

namespace Norv::State {

// A stand-in switch in this process, and short words for what is done with it. Plans are carried
// out by plain calls; how they travel the library's road is tested with the tools.
class TestSwitch {
 public:
  explicit TestSwitch(Standin::Options options = newer());

  static Standin::Options newer();
  static Standin::Options older();

  Standin::Server& server() { return *server_; }
  // With what the record of earlier `apply`s adds.
  LiveSwitch read();
  // The live switch as a document.
  std::string exported() { return yaml(described(read())); }
  void load(const std::string& lines) { server_->load(lines); }
  void reset();

  // What came of a plan.
  struct Applied {
    Plan plan;
    std::vector<Execution::State> states;
    std::vector<std::string> refusals;  // "createPort left: EBUSY ..."
  };
  Applied apply(const Switch& wanted, const PlanOptions& options = {});
  Applied apply(const std::string& document, const PlanOptions& options = {});
  Applied carryOut(const Plan& plan);
  Plan plan(const std::string& document, const PlanOptions& options = {});

 private:
  Applied carryOut(Execution& execution);

  std::unique_ptr<Standin::Server> server_;
  std::shared_ptr<grpc::Channel> channel_;
  Record record_;
};

// The document, from a text that is right.
Switch wanted(const std::string& text);
// What is wrong with a text, a line for each problem.
std::string problems(const std::string& text);
// A line for each change, as in "+ module fib".
std::string summary(const Plan& plan);
// The commands, as in "createModule fib".
std::vector<std::string> commands(const Plan& plan);

// The recordings of a daemon; empty when they are not here.
std::vector<std::filesystem::path> recordings(const std::string& folder);
std::string contents(const std::filesystem::path& file);

}  // namespace Norv::State
