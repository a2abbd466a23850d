#pragma once

#include <string>

namespace Skein {

// What is there already under the name of a new trace file.

// As Lumo's, throwing Lumo::ErrnoException.
std::string targetOfLinks(const std::string& path);

// True for a trace file, false where nothing or an empty file is. Throws Lumo::ErrnoException with
// EEXIST for anything else, EBUSY for a trace file that somebody writes; likewise where
// PATH.previous, which a trace file would replace, is such a thing.
bool isOlderTraceFile(const std::string& path);

// Renames the file to PATH.previous, in place of an older one. False, and errno, if it cannot.
bool keepAsPrevious(const std::string& path);

}  // namespace Skein
