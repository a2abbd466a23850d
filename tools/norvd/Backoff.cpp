#include "Backoff.h"

#include <algorithm>

#include "Options.h"

namespace Norvd {

std::chrono::milliseconds Backoff::pauseAfter(int exitStatus, std::chrono::milliseconds lived) {
  if (exitStatus == again || lived >= longest) pause_ = shortest;
  const auto pause = std::min(pause_, exitStatus == early ? longestAfterLoss : longest);
  pause_ = std::min(pause_ * 2, longest);
  return pause / 2 + pause * (random_() % 500) / 1000;
}

}  // namespace Norvd
