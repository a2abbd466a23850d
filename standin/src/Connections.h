#pragma once

#include <string>

// What gRPC does not offer: to close one connection, or a listener, as a dying process does. They
// go by the sockets of this process.

namespace Standin {

// Whether the name, in gRPC's form, is of a unix socket.
bool isUnix(const std::string& name);
// Whether a unix socket takes connections.
bool someoneListens(const std::string& address);
// Closes the connection whose other end is `peer`, in gRPC's form; clients of a unix socket have no
// names, so that all connections go that were made at `address`. False when there is none, as with
// a client in this process.
bool hangUp(const std::string& peer, const std::string& address);
// Closes what listens at the address, in gRPC's form; connections stay.
void stopListening(const std::string& address);

}  // namespace Standin
