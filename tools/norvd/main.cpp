#include <iostream>
#include <stdexcept>

#include <Norv/State/Files.h>

#include "Agent.h"
#include "Signals.h"
#include "Supervisor.h"
#include "Web.h"
#include "look/Diagnosis.h"

int main(int argc, char** argv) {
  const Norvd::Options options = Norvd::optionsOf(argc, argv);
  Norvd::outliveFailedWrites();
  if (options.supervise) return Norvd::supervise(argc, argv);
  Norvctl::exemptLoopbackFromProxies(options.host);
  try {
    if (!options.stateDir.empty()) Norv::State::checkFolder(options.stateDir);
  } catch (const std::runtime_error& error) {
    std::cerr << "norvd: " << error.what() << '\n';
    return Norvd::unusable;
  }
  Norvd::Memory memory(options.stateDir, options.address());
  if (const std::string why = memory.lock(); !why.empty()) {
    std::cerr << "norvd: another norvd keeps the switch at " << options.address() << ": " << why
              << "; end that one first, or choose another --state-dir\n";
    return Norvd::unusable;
  }
  memory.load();
  Norvd::UnderWay underWay;
  Norvd::Board board;
  Norvd::Metrics metrics;
  Norvd::Agent agent(options, memory, underWay, board, metrics);
  const Norvd::Web web(options.http, board, metrics,
                       [&](const std::string& notice) { agent.noticeIs("pages", notice); });
  agent.run();
}
