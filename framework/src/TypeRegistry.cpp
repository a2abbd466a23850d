#include <algorithm>
#include <string_view>

#include <Lumo/Clock.h>
#include <Lumo/Entity.h>
#include <Lumo/Lock.h>
#include <Lumo/Notifiee.h>
#include <Lumo/TypeRegistry.h>

namespace Lumo {

namespace {

// Function-local, because modules register from their static initialisers, in any order.
std::vector<const LumoType*>& registered() {
  static std::vector<const LumoType*> types;
  return types;
}

}  // namespace

// The built-in types and the framework's own classes: descriptors that attributes refer to. They
// are not registered by name.
template <>
constinit const LumoType Builtin<bool>::_lumoType("bool");
template <>
constinit const LumoType Builtin<int>::_lumoType("int");
template <>
constinit const LumoType Builtin<unsigned short>::_lumoType("U16");
template <>
constinit const LumoType Builtin<unsigned int>::_lumoType("U32");
template <>
constinit const LumoType Builtin<unsigned long long>::_lumoType("U64");
template <>
constinit const LumoType Builtin<String>::_lumoType("Lumo::String");
constinit const LumoType _lumoType_void("void");
constinit const LumoType Name::_lumoType("Lumo::Name");
constinit const LumoType PtrInterface::_lumoType("Lumo::PtrInterface");
constinit const LumoType Entity::_lumoType("Lumo::Entity");
constinit const LumoType NotifieeConst::_lumoType("Lumo::NotifieeConst");
constinit const LumoType Clock::_lumoType("Lumo::Clock");
constinit const LumoType Clock::NotifieeConst::_lumoType("Lumo::Clock::NotifieeConst");
constinit const LumoType Lock::_lumoType("Lumo::Lock");
constinit const LumoType Condition::_lumoType("Lumo::Condition");

const char* LumoAttr::typeName() const {
  return typeName_ ? typeName_ : type_->typeName();
}

const LumoAttr* LumoType::attr(const char* name) const {
  const auto found = std::find_if(attributes_.begin(), attributes_.end(), [&](const LumoAttr& row) {
    return std::string_view(row.name()) == name;
  });
  return found == attributes_.end() ? nullptr : &*found;
}

void typeNodeIs(const LumoType* type) {
  registered().push_back(type);
}

const LumoType* typeNode(const String& name) {
  for (const LumoType* type : registered()) {
    if (name == type->typeName()) return type;
  }
  return nullptr;
}

std::vector<const LumoType*> typeNodes() {
  return registered();
}

}  // namespace Lumo
