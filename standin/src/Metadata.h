#pragma once

#include <cstdint>

#include "Pipeline.h"

namespace Standin {

// The places of attributes in the metadata of packets. The daemon finds them at every resume; here
// that waits until somebody asks, or until something changes that no resume follows: who connects
// many modules while workers run has a resume at each, and only the last one can be seen.
// Not thread safe; see Daemon.
class Metadata {
 public:
  explicit Metadata(const Pipeline& pipeline) : pipeline_(pipeline) {}

  void resumed();
  // To be told of a new module: its attributes have no place before the next resume.
  void made(Module& module) const { module.resumesBefore = resumes_; }
  // To be called before modules are connected, unless a resume follows.
  void beforeConnecting(const Module& from, const Module& to);
  // Finds what the last resume found. To be called before attributes are shown, and before a change
  // of any other kind, unless a resume follows.
  void settle();

 private:
  bool newcomer(const Module& module) const { return module.resumesBefore == resumes_; }

  const Pipeline& pipeline_;
  std::uint64_t resumes_ = 0;
  bool due_ = false;
};

}  // namespace Standin
