#include "Thing.h"

namespace sample {

constinit const Lumo::LumoType Thing::_lumoType("sample::Thing");
constinit const Lumo::LumoType Thing::NotifieeConst::_lumoType("sample::Thing::NotifieeConst");
constinit const Lumo::LumoType Reactor::_lumoType("sample::Reactor");

Thing::~Thing() {
  if (onDestruction) onDestruction();
}

}  // namespace sample
