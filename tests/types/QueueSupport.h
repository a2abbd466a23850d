#pragma once

#include <vector>

#include <Norv/CmdConfigGroup.h>
#include <Norv/CmdGroup.h>

namespace support {

// A command that is only told apart by its address.
inline Lumo::Ptr<Norv::GrpcCmd> cmd() {
  return Norv::grpcCmdFactory(nullptr, Norv::getVersion);
}

// The indexes of a queue's owner, in order.
template <class Owner>
std::vector<U32> indexes(const Owner& owner) {
  std::vector<U32> all;
  for (auto it = owner.cmdBatchIteratorConst(); it; ++it) all.push_back(it.key());
  return all;
}

}  // namespace support
