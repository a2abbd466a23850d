#include <Skein/MsgDesc.h>

namespace Skein {

MsgDesc::MsgDesc(TraceFile* file, int* id, char const* sourceFile, int line, bool places)
    : file_(file), id_(id) {
  site_.file = sourceFile;
  site_.line = line;
  site_.places = places;
}

void MsgDesc::originIs(const Lumo::String& facility, U8 level, char const* function) {
  site_.facility = facility.stdString();
  site_.level = level;
  site_.function = function;
}

MsgDesc& MsgDesc::operator<<(char const* text) {
  site_.text += text;
  return *this;
}

int MsgDesc::finish() {
  site_.codes = format_.codes();
  const int id = file_->siteIs(id_, site_);
  if (id != 0) std::atomic_ref<int>(*id_).store(id, std::memory_order_release);
  return id;
}

}  // namespace Skein
