#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

namespace support {

// A framework object that says when it is gone and whose memory reads as zeros from then on, until
// the process ends: whoever goes on with it is seen to, also without a sanitizer.
template <class Base>
class Mortal : public Base {
 public:
  template <class... Args>
  explicit Mortal(bool* gone, Args&&... args) : Base(std::forward<Args>(args)...), gone_(gone) {}
  ~Mortal() override { *gone_ = true; }

  static void* operator new(std::size_t size) { return Base::operator new(size); }
  static void operator delete(void* memory) {
    std::memset(memory, 0, sizeof(Mortal));
    static std::vector<std::unique_ptr<void, void (*)(void*)>> graves;
    graves.emplace_back(memory, [](void* grave) { Base::operator delete(grave); });
  }

 private:
  bool* const gone_;
};

}  // namespace support
