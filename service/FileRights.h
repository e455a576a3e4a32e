#pragma once

#include "service/OpenFile.h"

#include <ctime>
#include <string>

// What writing into a file takes from it, and what has to come back.

/// The attribute "security.capability", or nothing.
std::string readCapabilities(const OpenFile& file);
/// Gives a file its capabilities and the permissions of `mode` again.
void putRightsBack(const OpenFile& file, const std::string& capabilities, mode_t mode);
/// To the nanosecond, while the interface's own way takes whole seconds.
void putTimesBack(const OpenFile& file, const timespec& accessed, const timespec& modified);
