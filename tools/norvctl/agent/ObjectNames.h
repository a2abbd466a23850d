#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <Norv/State/Switch.h>

// How objects are called between a person, norvctl and norvd.
namespace Norvctl {

// All that a person's words may mean, "module fib" or "fib"; whether there are such is not looked
// at.
std::vector<Norv::State::Object> objectsMeant(const std::string& words);

// An object as norvd keeps deaths by it: its text, made UTF-8, and short where the name is long.
std::string deathKey(const Norv::State::Object& object);

// 16 digits, the same for the same text and hardly ever for another.
std::string fingerprint(std::string_view text);

}  // namespace Norvctl
