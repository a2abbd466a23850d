#pragma once

#include <string>

// What gRPC does not offer: to close one connection, or a listener, as a dying process does. They
// go by the sockets of this process.

namespace Standin {

// Closes the connection whose other end is `peer`, in gRPC's form. False when there is none, as
// with a client in this process.
bool hangUp(const std::string& peer);
// Closes what listens at the address, in gRPC's form; connections stay.
void stopListening(const std::string& address);

}  // namespace Standin
