#pragma once

#include <cstdio>
#include <string>

#include "Filter.h"

// Writes what a file holds: how many records, how many were lost, and how many each site left.
void writeStat(Skein::Reader& reader, const Filter& filter, bool json, std::FILE* out);

// The same to standard output, and what is wrong with the file. Returns the exit status. Throws
// Skein::FileError.
int stat(const std::string& path, Filter& filter, bool json);
