#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <Norv/State/Switch.h>

namespace Norvd {

// All objects of a switch; the hook that comes with a connection is no object of its own.
std::vector<Norv::State::Object> objectsOf(const Norv::State::Switch& wanted);
// What is wanted of each, as a text that is the same for the same and hardly ever for another;
// "absent" where it is not wanted.
std::map<Norv::State::Object, std::string> valuesOf(const Norv::State::Switch& wanted,
                                                    const std::set<Norv::State::Object>& objects);

// What UnderWay keeps of a change.
std::string deathNoteOf(const std::string& object, const std::string& value);
// Object and value; empty when it is no such note.
std::pair<std::string, std::string> parsedDeathNote(const std::string& note);

// The first line of the file, which is removed; empty when there is none.
std::string takeLine(const std::string& file);

}  // namespace Norvd
