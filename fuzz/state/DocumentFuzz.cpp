#include <cstdint>
#include <cstdlib>

#include <Norv/State/Document.h>

// A document is refused with what is wrong, or it is written so that it reads back as it is.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Norv::State;
  Document document;
  try {
    document = readDocument({{"f", std::string(reinterpret_cast<const char*>(data), size)}});
  } catch (const DocumentError&) {
    return 0;
  }
  checkReferences(document, nullptr);
  const std::string written = yaml(document.wanted);
  try {
    if (yaml(readDocument({{"written", written}}).wanted) != written) std::abort();
    if (yaml(readDocument({{"json", json(document.wanted)}}).wanted) != written) std::abort();
  } catch (const DocumentError&) {
    std::abort();
  }
  return 0;
}
