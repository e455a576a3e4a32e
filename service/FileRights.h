#pragma once

#include "service/OpenFile.h"

#include <ctime>
#include <string>

// What writing into a file takes from it, and what has to come back.

/// The attribute that holds file capabilities.
constexpr const char* kCapabilityAttribute = "security.capability";

/// That attribute, or nothing. Throws if it cannot be read.
std::string readCapabilities(const OpenFile& file);
/// Gives a file the capabilities, and the set-user-ID and set-group-ID bits, that our own writes have taken
/// from it. What its owner or root has changed meanwhile stays: to a file of another owner or group nothing
/// is given, and capabilities to none that others than root may write.
void putRightsBack(const OpenFile& file, const std::string& capabilities, const struct stat& before);
/// To the nanosecond, while the interface's own way takes whole seconds.
void putTimesBack(const OpenFile& file, const timespec& accessed, const timespec& modified);
