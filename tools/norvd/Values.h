#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <Norv/State/Switch.h>

namespace Norvd {

// All objects of a switch; the hook that comes with a connection is no object of its own.
std::vector<Norv::State::Object> objectsOf(const Norv::State::Switch& wanted);
// What is wanted of each, as a text that is the same for the same and hardly ever for another;
// "absent" where it is not wanted.
std::map<Norv::State::Object, std::string> valuesOf(const Norv::State::Switch& wanted,
                                                    const std::set<Norv::State::Object>& objects);

// What UnderWay keeps of a command.
struct DeathNote {
  std::string object;  // its Norvctl::deathKey
  std::string value;   // what was wanted of it
  std::string command;
};
std::string written(const DeathNote& note);
// nullopt: it is no such note.
std::optional<DeathNote> parsedDeathNote(const std::string& note);

}  // namespace Norvd
