#include "LineStream.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace Lumo {

namespace {
constexpr std::size_t firstSize = 512;
constexpr std::size_t keptSize = 64 * 1024;  // a longer line's memory is not kept
}  // namespace

// The streams of a thread. More than these are in use at once only where formatting an argument
// traces by itself, several levels deep.
struct LineStream::ThreadStreams {
  std::array<LineStream, 4> streams;
};

namespace {

// Beside the key below, for speed.
[[gnu::tls_model("initial-exec")]] thread_local constinit void* threadStreams = nullptr;

// A child that is forked while another thread makes the key makes it anew; at the guard of a local
// static it would wait for ever.
pthread_once_t keyMade = PTHREAD_ONCE_INIT;
pthread_key_t key;

}  // namespace

LineStream::LineStream() : std::ostream(nullptr) {
  rdbuf(&buffer_);
  imbue(std::locale::classic());
}

// A key's destructor runs after the thread's C++ thread-locals are gone, and not for the main
// thread: destructors of either kind may still trace.
void LineStream::makeThreadStreams() {
  pthread_once(&keyMade, [] {
    pthread_key_create(&key, [](void* streams) {
      threadStreams = nullptr;
      delete static_cast<ThreadStreams*>(streams);
    });
  });
  auto* made = new ThreadStreams;
  for (LineStream& stream : made->streams) stream.owned_ = true;
  pthread_setspecific(key, made);
  threadStreams = made;
}

LineStream* LineStream::borrow() {
  if (!threadStreams) makeThreadStreams();
  for (LineStream& stream : static_cast<ThreadStreams*>(threadStreams)->streams) {
    if (stream.lent_) continue;
    stream.lent_ = true;
    return &stream;
  }
  return new LineStream;
}

void LineStream::giveBack(LineStream* stream) {
  if (!stream->owned_) {
    delete stream;
    return;
  }
  stream->reset();
  stream->lent_ = false;
}

void LineStream::reset() {
  buffer_.clear();
  if (rdstate() != std::ios_base::goodbit) clear();
  flags(std::ios_base::skipws | std::ios_base::dec);
  if (exceptions() != std::ios_base::goodbit) exceptions(std::ios_base::goodbit);
  width(0);
  precision(6);
  if (fill() != ' ') fill(' ');
}

LineBuffer::LineBuffer() : memory_(firstSize) {
  clear();
}

void LineBuffer::clear() {
  if (memory_.size() > keptSize) {
    memory_.resize(firstSize);
    memory_.shrink_to_fit();
  }
  setp(memory_.data(), memory_.data() + memory_.size());
}

void LineBuffer::grow(std::size_t atLeast) {
  const std::size_t used = text().size();
  memory_.resize(std::max(memory_.size() * 2, used + atLeast));
  setp(memory_.data(), memory_.data() + memory_.size());
  pbump(static_cast<int>(used));
}

LineBuffer::int_type LineBuffer::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  grow(1);
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  return c;
}

std::streamsize LineBuffer::xsputn(const char* text, std::streamsize length) {
  const auto size = static_cast<std::size_t>(length);
  if (static_cast<std::size_t>(epptr() - pptr()) < size) grow(size);
  if (size > 0) std::memcpy(pptr(), text, size);
  pbump(static_cast<int>(size));
  return length;
}

}  // namespace Lumo
