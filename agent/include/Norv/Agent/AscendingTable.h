#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <memory>
#include <unordered_map>
#include <utility>

namespace Norv::Agent {

// A table for values whose keys ascend as they are entered, by one or nearly so, and which go again
// in about that order. Neighbours stand together: a million of them are some thousands of pieces of
// the heap, and the next one is close to the last. An unsigned key may begin at 0 again; a value
// that stays keeps its block, of 64, whatever goes around it.
//
// No thread of its own: the caller sees to that one alone uses it.
template <class Key, class Value>
class AscendingTable {
 public:
  // Makes the value of a key that is not there. It stays where it is until it is erased.
  Value& make(Key key) {
    auto found = blocks_.find(key / blockSize);
    const bool isNew = found == blocks_.end();
    if (isNew) found = blocks_.emplace(key / blockSize, std::make_unique<Block>()).first;
    Block& block = *found->second;
    block.there.set(key % blockSize);
    if (isNew) dropIfEmpty(std::exchange(newest_, static_cast<Key>(key / blockSize)));
    return block.values[key % blockSize];
  }

  // Null if it is not there.
  Value* find(Key key) {
    const auto found = blocks_.find(key / blockSize);
    if (found == blocks_.end() || !found->second->there.test(key % blockSize)) return nullptr;
    return &found->second->values[key % blockSize];
  }
  const Value* find(Key key) const { return const_cast<AscendingTable*>(this)->find(key); }

  // The key is there.
  void erase(Key key) {
    Block& block = *blocks_.find(key / blockSize)->second;
    block.values[key % blockSize] = Value();
    block.there.reset(key % blockSize);
    // The newest one is needed for the next key.
    if (key / blockSize != newest_) dropIfEmpty(key / blockSize);
  }

  // Calls visitor(key, value) for each, in no order. The visitor leaves the table as it is.
  template <class Visitor>
  void visit(Visitor visitor) const {
    for (const auto& [number, block] : blocks_) {
      for (std::size_t i = 0; i < blockSize; ++i) {
        if (block->there.test(i))
          visitor(static_cast<Key>(number * blockSize + i), block->values[i]);
      }
    }
  }

 private:
  static constexpr std::size_t blockSize = 64;
  struct Block {
    std::bitset<blockSize> there;
    std::array<Value, blockSize> values{};
  };

  void dropIfEmpty(Key number) {
    const auto found = blocks_.find(number);
    if (found != blocks_.end() && found->second->there.none()) blocks_.erase(found);
  }

  std::unordered_map<Key, std::unique_ptr<Block>> blocks_;  // by number
  Key newest_ = 0;  // the number of the block that was made last
};

}  // namespace Norv::Agent
