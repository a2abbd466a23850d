#pragma once

#include <atomic>
#include <cstring>

#include <Skein/Argument.h>
#include <Skein/Layout.h>
#include <Skein/RecordClock.h>

namespace Skein {

class TraceFile;

// Writes the records of one thread into a trace file. TraceFile::log hands it out; a record is
// startMsg, the arguments, endMsg, with nothing else of the thread's tracing in between. A record
// counts from the last store of endMsg on: whoever is killed before leaves none.
// Raises nothing. Texts that do not fit into a block are cut; what still does not fit is dropped
// and counted in the file.
class alignas(64) RingBuf {
 public:
  RingBuf() = default;
  RingBuf(const RingBuf&) = delete;
  RingBuf& operator=(const RingBuf&) = delete;

  void startMsg(TraceFile* file, int id);
  void endMsg();

  RingBuf& operator<<(char item) { return raw(&item, sizeof item); }
  RingBuf& operator<<(int item) { return raw(&item, sizeof item); }
  RingBuf& operator<<(unsigned int item) { return raw(&item, sizeof item); }

  // The arguments, in the order of the descriptor's codes.
  void put(bool value) { *this << static_cast<char>(value ? 1 : 0); }
  void put(char value) { *this << value; }
  void put(int value) { *this << value; }
  void put(unsigned int value) { *this << value; }
  void put(long value) { put(static_cast<long long>(value)); }
  void put(long long value) { raw(&value, sizeof value); }
  void put(unsigned long value) { put(static_cast<unsigned long long>(value)); }
  void put(unsigned long long value) { raw(&value, sizeof value); }
  void put(const void* value) { put(static_cast<U64>(reinterpret_cast<std::uintptr_t>(value))); }
  void put(std::nullptr_t) { put(static_cast<const void*>(nullptr)); }
  void put(const Lumo::String& value) { putText(textOf(value)); }
  void put(const Lumo::Name& value) { putText(textOf(value)); }
  void put(const std::string& value) { putText(value); }
  void put(std::string_view value) { putText(value); }
  void put(const char* value) { putText(textOf(value)); }
  void put(QNull) {}

 private:
  friend class TraceFile;
  friend struct OpenFiles;

  RingBuf& raw(const void* bytes, std::size_t size) {
    if (static_cast<std::size_t>(end_ - cursor_) < size && !moveToNextBlock(size)) return *this;
    std::memcpy(cursor_, bytes, size);
    cursor_ += size;
    return *this;
  }
  void putText(std::string_view text);
  bool moveToNextBlock(std::size_t size);
  void drop();
  void leaveBlock();
  void forgetBlock();
  void startOver();

  char* block_ = nullptr;   // held by this writer; null before the first record
  char* end_ = nullptr;     // of the block
  char* record_ = nullptr;  // where the record in the making, or the next one, starts
  char* cursor_ = nullptr;
  TraceFile* file_ = nullptr;
  U64 sequence_ = 0;  // of the block
  U64 ordinal_ = 0;   // likewise
  U32 writer_ = 0;    // 0 before the first block
  U32 id_ = 0;
  U32 records_ = 0;  // in the block
  RecordClock clock_;
  bool failed_ = false;  // the record in the making did not fit
  U8 level_ = 0;
};

inline void RingBuf::endMsg() {
  if (failed_) {
    cursor_ = record_;
    return;
  }
  const auto length = (static_cast<std::size_t>(cursor_ - record_) + 7) & ~std::size_t{7};
  char* const next = record_ + length;
  // The next record reads as not committed before this one is.
  if (next < end_) std::memset(next, 0, sizeof(U64));
  std::atomic_ref<U64>(reinterpret_cast<RecordHeader*>(record_)->commit)
      .store(commitWord(sequence_, id_, length), std::memory_order_release);
  record_ = cursor_ = next;
  ++records_;
}

}  // namespace Skein
