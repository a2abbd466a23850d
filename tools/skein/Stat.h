#pragma once

#include <string>

#include "Filter.h"

// Writes what a file holds: how many records, how many were lost, and how many each site left.
// Returns the exit status. Throws Skein::FileError.
int stat(const std::string& path, Filter& filter, bool json);
