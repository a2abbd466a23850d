#include "HookList.h"

#include <algorithm>
#include <iterator>

namespace Standin {

std::string HookList::freeName(const std::string& prefix) {
  return names_.next(prefix, [this](const std::string& name) { return has(name); });
}

void HookList::add(const std::string& className, const std::string& name) {
  hooks_.push_back({className, name});
  byName_[hooks_.back().name] = std::prev(hooks_.end());
}

void HookList::remove(std::string_view name) {
  const auto found = byName_.find(name);
  if (found == byName_.end()) return;
  const auto hook = found->second;
  names_.freed(hook->name);
  byName_.erase(found);
  hooks_.erase(hook);
}

void HookList::removeFirst(std::string_view className) {
  const auto found = std::find_if(hooks_.begin(), hooks_.end(), [&](const GateHook& hook) {
    return hook.className == className;
  });
  if (found != hooks_.end()) remove(found->name);
}

}  // namespace Standin
