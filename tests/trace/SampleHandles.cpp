#include "TracePoints.h"

namespace Sample {

Lumo::TraceHandle& handle() {
  static Lumo::TraceHandle made("Sample", false);
  return made;
}

Lumo::TraceHandle& otherHandle() {
  static Lumo::TraceHandle made("Other", false);
  return made;
}

Lumo::TraceHandle& agentHandle() {
  static Lumo::TraceHandle made("NorvAgent", false);
  return made;
}

}  // namespace Sample
