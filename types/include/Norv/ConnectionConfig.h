#pragma once

#include <Lumo/PtrInterface.h>
#include <Lumo/String.h>

namespace Norv {

// Where the daemon listens. Immutable: another endpoint is another object. Nothing is checked; host
// and port are used as given.
class ConnectionConfig : public Lumo::PtrInterface {
  LUMO_OBJECT(ConnectionConfig)

 public:
  ConnectionConfig(U16 portNum, Lumo::String host) : portNum_(portNum), host_(host) {}
  static Lumo::ValidPtr<ConnectionConfig> ConnectionConfigIs(U16 portNum, Lumo::String host);
  ~ConnectionConfig() override = default;

  U16 portNum() const { return portNum_; }     // TCP
  Lumo::String host() const { return host_; }  // name or address

 private:
  const U16 portNum_;
  const Lumo::String host_;
};

Lumo::Ptr<ConnectionConfig> connectionConfigFactory(unsigned short portNum, Lumo::String host);

}  // namespace Norv
