#include <CommandSlices.h>
#include <Export.h>
#include <Json.h>
#include <Stat.h>
#include <support/TraceBytes.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <Skein/Skein.h>
#include <Twine/Twine.h>

// The reader takes any file: it reads it or refuses it with FileError, and never does more. What
// it reads can be exported: to valid JSON, and to a picture without a character that XML forbids.
// An input whose first byte is odd is a file as it stands behind that byte; otherwise it is a list
// of changes, offset and value in three bytes each, to a sound file, so that the header's checks
// are passed often.
namespace FuzzPoints {

Lumo::TraceHandle& handle() {
  static Lumo::TraceHandle made("Fuzz", false);
  return made;
}
Lumo::TraceHandle& commandHandle() {
  static Lumo::TraceHandle made(commandFacility, false);
  return made;
}

U8 levelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
using Twine::Sinks;
constexpr Twine::Module module{&handle, levelMap, "Fuzz.cpp"};
constexpr Twine::Point placed{&module, 1, "f", 5, Sinks::both, "a=%s b=%s c=%s d=%s"};
constexpr Twine::Point appended{&module, 2, "g", 5, Sinks::both, "appended", 4};
constexpr Twine::Module commandModule{&commandHandle, levelMap, "Fuzz.cpp"};
constexpr Twine::Point announced{&commandModule,       3, "announced", 6, Sinks::both,
                                 commandPoints[0].text};
constexpr Twine::Point ended{&commandModule, 4, "ended", 6, Sinks::both, commandPoints[1].text};

}  // namespace FuzzPoints

namespace {

// What differs from one run to the next: a change that finds something finds it again.
void makeAlike(std::string& bytes) {
  Skein::FileHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  header.pid = 1000;
  header.wallNs = 1'800'000'000'000'000'000;
  header.monotonicNs = 10'000'000'000;
  std::memcpy(bytes.data(), &header, sizeof header);
  U64 timeNs = header.monotonicNs;
  support::changeRecords(bytes, [&](Skein::RecordHeader& record) {
    record.thread = header.pid;
    record.monotonicNs = timeNs += 1000;
  });
}

std::string soundFile() {
  const std::string path = "/tmp/skein-fuzz-" + std::to_string(::getpid());
  {
    Skein::TraceHandle handle(path, {.size = Skein::minimalFileSize});
    Skein::defaultSkeinHandleIs(&handle);
    const std::string type = "getVersion";
    const std::string queue = "main";
    for (U64 i = 0; i < 20; ++i) {
      Twine::trace<FuzzPoints::announced>(i, type, queue, U64{1});
      Twine::trace<FuzzPoints::placed>(static_cast<int>(i), std::string("text"), true,
                                       reinterpret_cast<const void*>(0x1000));
      Twine::trace<FuzzPoints::appended>(Lumo::Name("name"), ~0ULL, 'c', Skein::QNull());
      Twine::trace<FuzzPoints::ended>(i, type, queue, std::string("ok"), U64{0});
    }
  }
  std::ifstream in(path, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(in), {}};
  ::unlink(path.c_str());
  makeAlike(bytes);
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

// A file in memory, under a name.
class Target {
 public:
  explicit Target(const char* name) : descriptor_(::memfd_create(name, MFD_CLOEXEC)) {}

  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }
  void contentsAre(const std::string& bytes) const {
    if (::ftruncate(descriptor_, 0) != 0 || ::pwrite(descriptor_, bytes.data(), bytes.size(), 0) !=
                                                static_cast<ssize_t>(bytes.size())) {
      std::abort();
    }
  }
  std::string contents() const {
    std::ifstream in(path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

 private:
  const int descriptor_;
};

bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

void read(const std::string& path) {
  Skein::Reader reader(path);
  std::string line;
  for (int round = 0; round < 2; ++round) {
    reader.read([&](const Skein::Record& record) {
      line.clear();
      record.appendLine(line);
      // One readable line each, whatever the file says.
      if (line.empty() || line.back() != '\n') std::abort();
      if (std::find_if(line.begin(), line.end(), isControl) != line.end() - 1) std::abort();
      if (record.arguments().size() != record.site->codes.size()) std::abort();
    });
  }
  reader.problem();
}

void writeStatistics(const std::string& path) {
  for (const bool json : {false, true}) {
    char* text = nullptr;
    std::size_t length = 0;
    std::FILE* out = ::open_memstream(&text, &length);
    Skein::Reader reader(path);
    writeStat(reader, Filter(), json, out);
    std::fclose(out);
    const std::string written(text, length);
    std::free(text);
    if (json && !nlohmann::json::accept(written)) std::abort();
  }
}

void exportAll(const std::string& path) {
  static const Target target("export");
  const Recording recording(path, Filter());
  if (exportPerfetto(recording, target.path()) != 0) std::abort();
  const auto trace = nlohmann::json::parse(target.contents(), nullptr, false);
  if (trace.is_discarded()) std::abort();
  const auto& events = trace["traceEvents"];
  // An announcement whose command has ended before it is none: nothing says how long that took.
  const bool hasCommands = std::any_of(events.begin(), events.end(), [](const auto& event) {
    return event["ph"] == "X" && event["cat"] == "command";
  });
  if (!hasCommands) return;
  if (exportSvg(recording, target.path()) != 0) std::abort();
  const std::string picture = target.contents();
  if (picture.find("</svg>") == std::string::npos) std::abort();
  // As a JSON text it would be refused were it not UTF-8.
  nlohmann::json(picture).dump();
  if (std::any_of(picture.begin(), picture.end(),
                  [](char c) { return isControl(c) && c != '\n'; })) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  static const Target file("skein");
  file.contentsAre(fileFrom(data, size));
  try {
    read(file.path());
    writeStatistics(file.path());
    exportAll(file.path());
  } catch (const Skein::FileError&) {
  }
  return 0;
}
