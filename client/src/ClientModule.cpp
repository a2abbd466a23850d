#include <Lumo/RegisteringModule.h>
#include <Norv/ClientTrace.h>

namespace Norv {

Lumo::TraceHandle& ClientTrace::_defaultTraceHandle() {
  static Lumo::TraceHandle handle("GrpcClient", false);
  return handle;
}

constinit U8 ClientTrace::levelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

bool ClientTrace::_mapTwineToSkein(U8 l0, U8 l1, U8 l2, U8 l3, U8 l4, U8 l5, U8 l6, U8 l7, U8 l8,
                                   U8 l9) {
  return Twine::levelMapIs(levelMap, {l0, l1, l2, l3, l4, l5, l6, l7, l8, l9});
}

namespace {

// The client registers no type. After the other two modules.
LUMO_MODULE_PRIORITY(3) const struct ClientModule : Lumo::RegisteringModule {
} clientModule;

}  // namespace

}  // namespace Norv
