#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

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

// Runs on a thread with so small a stack, in bytes, that no recursion as deep as a queue is long
// would fit.
inline void onAStackOf(std::size_t size, void (*run)()) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, size), 0);
  pthread_t thread;
  const auto start = [](void* function) -> void* {
    reinterpret_cast<void (*)()>(function)();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, start, reinterpret_cast<void*>(run)), 0);
  EXPECT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
}

}  // namespace support
