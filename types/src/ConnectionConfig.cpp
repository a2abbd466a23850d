#include <Lumo/AttrTable.h>
#include <Norv/ConnectionConfig.h>

namespace Norv {

namespace {

constexpr auto attributes =
    Lumo::attrTable(Lumo::readOnly<ConnectionConfig, &ConnectionConfig::portNum>(130, "portNum"),
                    Lumo::readOnly<ConnectionConfig, &ConnectionConfig::host>(131, "host"));

}  // namespace

constinit const Lumo::LumoType ConnectionConfig::_lumoType(
    "Norv::ConnectionConfig", attributes,
    Lumo::genericFunctions<ConnectionConfig, &connectionConfigFactory>());

Lumo::ValidPtr<ConnectionConfig> ConnectionConfig::ConnectionConfigIs(U16 portNum,
                                                                      Lumo::String host) {
  return Lumo::allocate<ConnectionConfig>(portNum, host);
}

Lumo::Ptr<ConnectionConfig> connectionConfigFactory(unsigned short portNum, Lumo::String host) {
  return ConnectionConfig::ConnectionConfigIs(portNum, host);
}

}  // namespace Norv
