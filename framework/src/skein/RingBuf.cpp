
#include <Skein/RingBuf.h>
#include <Skein/TraceFile.h>

#include "../trace/KernelThreadId.h"

namespace Skein {

void RingBuf::startMsg(TraceFile* file, int id) {
  file_ = file;
  failed_ = false;
  cursor_ = record_;
  if (id == 0) {  // the point could not be described
    drop();
    return;
  }
  if (static_cast<std::size_t>(end_ - cursor_) < sizeof(RecordHeader) &&
      !moveToNextBlock(sizeof(RecordHeader))) {
    return;
  }
  id_ = static_cast<U32>(id & TraceFile::idMask);
  auto& header = *reinterpret_cast<RecordHeader*>(record_);  // its commit word is 0 already
  header.thread = static_cast<U32>(Lumo::kernelThreadId());
  header.level = level_;
  header.monotonicNs = clock_.now();
  cursor_ = record_ + sizeof(RecordHeader);
}

void RingBuf::putText(std::string_view text) {
  constexpr std::size_t keptFree = 64;  // for arguments that follow a text that is cut
  U32 length = static_cast<U32>(text.size());
  if (static_cast<std::size_t>(end_ - cursor_) < sizeof length + text.size()) {
    const std::size_t room = file_->header().blockSize - sizeof(BlockHeader) - sizeof length;
    const auto before = static_cast<std::size_t>(cursor_ - record_);
    if (before + text.size() > room) {
      std::size_t kept = room > before + keptFree ? room - before - keptFree : 0;
      while (kept > 0 && (static_cast<U8>(text[kept]) & 0xc0) == 0x80) --kept;  // whole characters
      text = text.substr(0, kept);
      length = static_cast<U32>(kept) | clippedText;
    }
  }
  raw(&length, sizeof length);
  if (!text.empty()) raw(text.data(), text.size());
}

// Carries the record in the making over to a block where `size` more bytes fit.
bool RingBuf::moveToNextBlock(std::size_t size) {
  const auto made = static_cast<std::size_t>(cursor_ - record_);
  const std::size_t room = file_->header().blockSize - sizeof(BlockHeader);
  char* const block = failed_ || made + size > room ? nullptr : file_->takeBlock(*this);
  if (!block) {
    if (!failed_) drop();
    return false;
  }
  char* const record = block + sizeof(BlockHeader);
  if (made != 0) std::memcpy(record, record_, made);
  leaveBlock();
  block_ = block;
  end_ = block + file_->header().blockSize;
  record_ = record;
  records_ = 0;
  cursor_ = record + made;
  return true;
}

// Gives the record in the making up; what is still put into it goes nowhere.
void RingBuf::drop() {
  file_->countDropped();
  failed_ = true;
  cursor_ = end_;
}

void RingBuf::leaveBlock() {
  if (!block_) return;
  reinterpret_cast<BlockHeader*>(block_)->records = records_;
  std::atomic_ref<U32>(reinterpret_cast<BlockHeader*>(block_)->owner)
      .store(0, std::memory_order_release);
}

void RingBuf::forgetBlock() {
  block_ = end_ = record_ = cursor_ = nullptr;
}

// In a forked child: the block and the chain are the parent's.
void RingBuf::startOver() {
  forgetBlock();
  writer_ = 0;
  ordinal_ = 0;
}

}  // namespace Skein
