#pragma once

#include <cassert>

// The C library's own report of a failed assertion. <cassert> hides it under NDEBUG; ours are on in
// every build type.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((noreturn));

// Aborts with the usual report (file, line, function, text) when `condition` is false, in debug and
// release builds alike. The text is given and not taken from the source, so that reformatting the
// condition does not change what the process says when it dies.
#define LUMO_ASSERT(condition, text)  \
  ((condition) ? static_cast<void>(0) \
               : __assert_fail(text, __FILE__, __LINE__, __PRETTY_FUNCTION__))
