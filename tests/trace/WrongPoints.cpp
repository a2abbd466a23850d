// Trace statements that must not compile, one for each number; without any, the file compiles.

#include <string>

#include <Twine/Twine.h>

Lumo::TraceHandle& handle();

namespace {

U8 levelMap[10];
constexpr Twine::Module module{&handle, levelMap, "Wrong.cpp"};
constexpr Twine::Module withoutMap{&handle, nullptr, "Wrong.cpp"};

using Twine::Sinks;
constexpr Twine::Point two{&module, 1, "two", 5, Sinks::both, "%s and %s"};
constexpr Twine::Point appended{&module, 2, "appended", 5, Sinks::both, "then", 1};
constexpr Twine::Point none{&module, 6, "none", 5, Sinks::both, "now"};
[[maybe_unused]] constexpr Twine::Point placedAndAppended{&module,     7,         "odd", 5,
                                                          Sinks::both, "%s then", 1};
constexpr Twine::Point textOnly{&module, 3, "textOnly", 5, Sinks::text, "%s"};
[[maybe_unused]] constexpr Twine::Point tooDetailed{&module, 4, "tooDetailed", 10, Sinks::text, ""};
[[maybe_unused]] constexpr Twine::Point unmapped{&withoutMap, 5, "unmapped", 5, Sinks::both, ""};

struct Unprintable {};

}  // namespace

void trace() {
  Twine::trace<two>(1, std::string("2"));
  Twine::trace<appended>(1);
  Twine::trace<none>();
  Twine::trace<textOnly>('c');
#if WRONG == 1
  Twine::trace<two>(1);
#elif WRONG == 2
  Twine::trace<two>(1, 2, 3);
#elif WRONG == 3
  Twine::trace<textOnly>();
  Twine::trace<textOnly>(1, 2);
#elif WRONG == 4
  Twine::trace<two>(1, 2.5);
#elif WRONG == 5
  Twine::trace<appended>(Unprintable());
#elif WRONG == 6
  Twine::trace<textOnly>(Unprintable());
#elif WRONG == 7
  Twine::trace<tooDetailed>();
#elif WRONG == 8
  Twine::trace<unmapped>();
#elif WRONG == 9
  Twine::trace<appended>();
#elif WRONG == 10
  Twine::trace<appended>(1, 2);
#elif WRONG == 11
  Twine::trace<none>(1);
#elif WRONG == 12
  Twine::trace<placedAndAppended>(1, 2);
#endif
}
