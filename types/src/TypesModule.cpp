#include <Lumo/RegisteringModule.h>
#include <Norv/CmdGroup.h>
#include <Norv/GrpcErrorHandlingStatus.h>
#include <Norv/GrpcGlobalCmdConfig.h>

namespace Norv {

namespace {

[[gnu::used]] constinit char registered = 1;

// Registers the types that RegisteredTypes.def gives to this module. After the manager's.
struct TypesModule : Lumo::RegisteringModule {
  TypesModule() {
#define NORV_REGISTER_Manager(descriptor)
#define NORV_REGISTER_Types(descriptor) registerType(&descriptor, &registered);
#define NORV_REGISTERED_TYPE(Module, Type, descriptor) NORV_REGISTER_##Module(descriptor)
#include <Norv/RegisteredTypes.def>
#undef NORV_REGISTER_Manager
#undef NORV_REGISTER_Types
  }
};

LUMO_MODULE_PRIORITY(2) const TypesModule typesModule;

}  // namespace

}  // namespace Norv
