#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "Steps.h"

namespace Norvctl {

// Reads steps ahead on a thread of its own, a bounded number of them, so that neither parsing nor a
// stream that is silent holds up the main thread. Taken from on one thread.
class Feeder {
 public:
  // `wake` is called on the reading thread when there is something to take after there was nothing,
  // and at the end.
  Feeder(StepSource& source, std::function<void()> wake);
  ~Feeder();
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;

  // Ends the reading, once and for all; where the source waits for a stream, the thread is left
  // behind in it and `source` must stay.
  void stop();

  // What is there now.
  std::optional<Step> take();
  // What comes next, waiting for it; none at the end. For a source that is bounded.
  std::optional<Step> takeNext();
  // Nothing comes any more, and all has been taken.
  bool ended() const;
  // What was wrong with the input, once it has ended; empty: nothing.
  std::string complaint() const;

 private:
  struct Shared;
  const std::shared_ptr<Shared> shared_;
  std::thread thread_;
};

}  // namespace Norvctl
