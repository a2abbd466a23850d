#include <Lumo/RegisteringModule.h>
#include <Norv/ConnectionsMgr.h>
#include <Norv/ManagerTrace.h>

namespace Norv {

Lumo::TraceHandle& ManagerTrace::_defaultTraceHandle() {
  static Lumo::TraceHandle handle("NorvConnectionsMgr", false);
  return handle;
}

constinit U8 ManagerTrace::levelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

bool ManagerTrace::_mapTwineToSkein(U8 l0, U8 l1, U8 l2, U8 l3, U8 l4, U8 l5, U8 l6, U8 l7, U8 l8,
                                    U8 l9) {
  return Twine::levelMapIs(levelMap, {l0, l1, l2, l3, l4, l5, l6, l7, l8, l9});
}

namespace {

[[gnu::used]] constinit char registered = 1;

// Registers the types that RegisteredTypes.def gives to this module, among them one whose class
// belongs to the command model. Before the other modules, however the library file is linked.
struct ManagerModule : Lumo::RegisteringModule {
  ManagerModule() {
#define NORV_REGISTER_Manager(descriptor) registerType(&descriptor, &registered);
#define NORV_REGISTER_Types(descriptor)
#define NORV_REGISTERED_TYPE(Module, Type, descriptor) NORV_REGISTER_##Module(descriptor)
#include <Norv/RegisteredTypes.def>
#undef NORV_REGISTER_Manager
#undef NORV_REGISTER_Types
  }
};

LUMO_MODULE_PRIORITY(1) const ManagerModule managerModule;

}  // namespace

}  // namespace Norv
