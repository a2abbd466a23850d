#pragma once

#include <memory>
#include <string>

#include <Norv/Agent/Ledger.h>

#include "Status.h"

namespace Norvd {

// What norvd tells to Prometheus. `commandEnded` is for the main thread, `text` for any.
class Metrics {
 public:
  Metrics();
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  void commandEnded(const Norv::Agent::CommandReport& report);
  // In the text format, with the rest as the status has it.
  std::string text(const Status& status) const;

 private:
  struct Families;
  const std::unique_ptr<Families> families_;
};

}  // namespace Norvd
