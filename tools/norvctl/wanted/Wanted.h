#pragma once

#include <string>
#include <vector>

#include <Norv/State/Document.h>
#include <Norv/State/LiveSwitch.h>
#include <Norv/State/Plan.h>
#include <Norv/State/Record.h>
#include <Norv/State/SwitchLock.h>

#include "../Options.h"
#include "../look/Direct.h"

namespace CLI {
class App;
}

// What the verbs export, plan and apply share.
namespace Norvctl {

struct WantedOptions {
  TargetOptions target;
  std::vector<std::string> files;
  Norv::State::PlanOptions plan;
  std::string stateDir;  // empty: the usual one
  double timeoutSeconds = 0;
  bool json = false;
  bool quiet = false;
};
void addStateDir(CLI::App& command, WantedOptions& options);
// The files and what the plan goes by.
void addWanted(CLI::App& command, WantedOptions& options);

// A switch and what is known of it beyond what it tells.
class KnownSwitch {
 public:
  // Of a stand-in inside this process nothing is kept. Tells on standard error of a record that is
  // damaged. Who writes it holds it. Throws std::runtime_error when the record cannot be read.
  enum class Access { read, write };
  KnownSwitch(const WantedOptions& options, const Target& target, Access access = Access::read);

  // Takes the switch for this process, and looks what is known of it now; waits for another apply.
  // Throws std::runtime_error when norvd keeps it, too.
  void hold();
  // Others may have it.
  void letGo() { lock_.reset(); }
  // The live switch, complemented. Throws DirectError with the address and the reason.
  Norv::State::LiveSwitch read();
  // As it tells itself.
  Norv::State::LiveSwitch readBare();
  // Lets the worker run, by a call beside the library; why it does not, empty when it does.
  std::string resume(std::int64_t worker);
  Norv::State::Record& record() { return record_; }
  // Throws std::runtime_error.
  void saveRecord() const;

 private:
  void load();
  void lock();

  Direct direct_;
  const double limitSeconds_;  // for who has the switch; 0: none
  std::string folder_, file_;  // empty: none
  std::optional<Norv::State::SwitchLock> lock_;
  Norv::State::Record record_;
};

// The document of the files, with all that it refers to; nullopt, and told on standard error what
// is wrong, when it cannot be used. `live` is null when there is no switch to look at.
std::optional<Norv::State::Document> usableDocument(const WantedOptions& options,
                                                    const Norv::State::LiveSwitch* live);

// A line for each change, with the counts below.
std::string planText(const Norv::State::Plan& plan, bool colour);
// The commands of the plan, as a command file; what cannot be done, and is left out with what needs
// it, is told on standard error.
std::string planCommands(const Norv::State::Plan& plan);

}  // namespace Norvctl
