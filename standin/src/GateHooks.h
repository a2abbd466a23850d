#pragma once

#include <bess/pb/service.pb.h>

#include "Pipeline.h"

namespace Standin {

// Adds a hook to the gates that the request names, or takes one away; see the daemon's rules for
// requests without a module (all of them) and with gate -1 (all connected ones). Gates before the
// refused one keep the change. Answers the name of the hook when one gate was named.
std::string configureGateHook(Pipeline& pipeline,
                              const bess::pb::ConfigureGateHookRequest& request);

}  // namespace Standin
