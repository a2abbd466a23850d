#include <Twine/Twine.h>

#include "../trace/LineStream.h"

namespace Twine {

SkeinConverter::SkeinConverter() : stream_(Lumo::LineStream::borrow()) {}

SkeinConverter::~SkeinConverter() {
  Lumo::LineStream::giveBack(stream_);
}

std::ostream& SkeinConverter::fixed() {
  return *stream_;
}

Lumo::String SkeinConverter::traceString() const {
  return Lumo::String(std::string(text()));
}

std::string_view SkeinConverter::text() const {
  return stream_->text();
}

void SkeinConverter::append(const char* text, std::size_t length) {
  stream_->rdbuf()->sputn(text, static_cast<std::streamsize>(length));
}

bool levelMapIs(U8* levelMap, const std::array<U8, 10>& levels) {
  for (std::size_t i = 0; i < levels.size(); ++i) {
    std::atomic_ref<U8>(levelMap[i]).store(levels[i], std::memory_order_relaxed);
  }
  return true;
}

}  // namespace Twine
