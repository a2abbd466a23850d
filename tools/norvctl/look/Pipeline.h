#pragma once

#include <map>
#include <string>
#include <vector>

#include <bess/pb/module.pb.h>

#include "../text/Terminal.h"

namespace Norvctl {

// The pipeline of modules and connections as a picture. `rates` has texts for the connections, by
// connectionName; those that are not in it have none.
using ConnectionTexts = std::map<std::string, std::string>;

// Lines for a terminal: each module, sources first, with where its output gates lead to.
std::string pipelineText(const std::vector<bess::pb::GetModuleInfoResponse>& modules,
                         const ConnectionTexts& rates, const Colours& colours);
// For graphviz.
std::string pipelineDot(const std::vector<bess::pb::GetModuleInfoResponse>& modules,
                        const ConnectionTexts& rates);

}  // namespace Norvctl
