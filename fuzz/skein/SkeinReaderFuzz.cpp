#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <Skein/Skein.h>
#include <Twine/Twine.h>

// The reader takes any file: it reads it or refuses it with FileError, and never does more. An
// input whose first byte is odd is a file as it stands; otherwise it is a list of changes, offset
// and value in three bytes each, to a sound file, so that the header's checks are passed often.
namespace FuzzPoints {

Lumo::TraceHandle& handle() {
  static Lumo::TraceHandle made("Fuzz", false);
  return made;
}

U8 levelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
constexpr Twine::Module module{&handle, levelMap, "Fuzz.cpp"};
constexpr Twine::Point placed{&module, 1, "f", 5, Twine::Sinks::both, "a=%s b=%s c=%s d=%s"};
constexpr Twine::Point appended{&module, 2, "g", 5, Twine::Sinks::both, "appended"};

}  // namespace FuzzPoints

namespace {

std::string soundFile() {
  const std::string path = "/tmp/skein-fuzz-" + std::to_string(::getpid());
  {
    Skein::TraceHandle handle(path, {.size = Skein::minimalFileSize});
    Skein::defaultSkeinHandleIs(&handle);
    for (int i = 0; i < 60; ++i) {
      Twine::trace<FuzzPoints::placed>(i, std::string("text"), true, &handle);
      Twine::trace<FuzzPoints::appended>(Lumo::Name("name"), ~0ULL, 'c', Skein::QNull());
    }
  }
  std::ifstream in(path, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(in), {}};
  ::unlink(path.c_str());
  return bytes;
}

std::string fileFrom(const unsigned char* data, std::size_t size) {
  static const std::string sound = soundFile();
  if (size == 0) return {};
  if (data[0] % 2 == 1) return std::string(reinterpret_cast<const char*>(data + 1), size - 1);
  std::string bytes = sound;
  for (std::size_t at = 1; at + 3 <= size; at += 3) {
    const std::size_t offset = data[at] * 256U + data[at + 1];
    if (offset < bytes.size()) bytes[offset] = static_cast<char>(data[at + 2]);
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  static const int descriptor = ::memfd_create("skein", MFD_CLOEXEC);
  const std::string bytes = fileFrom(data, size);
  if (::ftruncate(descriptor, 0) != 0 ||
      ::pwrite(descriptor, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    std::abort();
  }
  try {
    Skein::Reader reader("/proc/self/fd/" + std::to_string(descriptor));
    std::string line;
    for (int round = 0; round < 2; ++round) {
      reader.read([&](const Skein::Record& record) {
        line.clear();
        record.appendLine(line);
        // One line each, whatever the file says.
        if (line.empty() || line.find('\n') != line.size() - 1) std::abort();
        if (record.arguments().size() != record.site->codes.size()) std::abort();
      });
    }
    reader.problem();
  } catch (const Skein::FileError&) {
  }
  return 0;
}
