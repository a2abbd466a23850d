// Drives the indexed queue and its model with the operations that the input spells, two bytes each,
// and stops at the first difference. The index is a byte, so that every boundary is near.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "../../tests/types/QueueModel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  model::Pair<U8> pair;
  for (std::size_t i = 0; i + 1 < size; i += 2) {
    const U8 argument = data[i + 1];
    bool agree = true;
    switch (data[i] % 10) {
      case 0:
        agree = pair.takeHead();
        break;
      case 1:
        agree = pair.del(argument);
        break;
      case 2:
        agree = pair.place(argument);
        break;
      case 3:
        agree = pair.startAt(argument);
        break;
      case 4:
        agree = pair.metadata(argument, data[i] / 10 * 10);
        break;
      case 5:
        agree = pair.move(data[i] / 10 * 10, argument);
        break;
      case 6:
        agree = pair.step();
        break;
      default:
        agree = pair.append();
    }
    if (!agree) std::abort();
  }
  return 0;
}
