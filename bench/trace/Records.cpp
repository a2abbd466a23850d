// Makes a trace file with so many records of two integers. Usage: trace_records FILE RECORDS.

#include <cstdio>
#include <cstdlib>

#include <Skein/Skein.h>
#include <Twine/Twine.h>

namespace Records {

Lumo::TraceHandle& handle() {
  static Lumo::TraceHandle made("Records", false);
  return made;
}

U8 levelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
constexpr Twine::Module module{&handle, levelMap, "Records.cpp"};
constexpr Twine::Point point{&module, 1, "write", 5, Twine::Sinks::both, "a=%s b=%s"};

}  // namespace Records

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: trace_records FILE RECORDS\n");
    return 1;
  }
  Skein::TraceHandle skein(argv[1], {256 * 1024 * 1024, false});
  Skein::defaultSkeinHandleIs(&skein);
  const int count = std::atoi(argv[2]);
  for (int i = 0; i < count; ++i) Twine::trace<Records::point>(i, i + 1);
  Skein::defaultSkeinHandleIs(nullptr);
}
