#pragma once

#include <string>

// Files that are kept across the ends of programs.
namespace Norv::State {

// Throws std::runtime_error for a folder from which nothing should be taken: one that everybody may
// write, or that somebody else has put where everybody may. Any other is taken, there or not.
void checkFolder(const std::string& folder);

// Makes the folder where it is not there, and those above it, for their owner alone. False, and
// errno, if it cannot.
bool makeFolder(const std::string& folder);

// Replaces the file by a whole new one that is on the disk when this returns; only its owner can
// read it. Its folder is made when it is not there. Throws std::runtime_error, and the old file
// stays.
void replaceFile(const std::string& file, const std::string& text);

// Throws std::runtime_error: what cannot be done, with which file, and the system's reason (errno).
[[noreturn]] void failFile(const std::string& what, const std::string& file);

}  // namespace Norv::State
