#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <vector>

// Stub data, read and taken apart for back-ends whose stubs carry stub text.

/// Reads the attribute "user.TSTUB" into all of `stubData`, with zeros behind it. False, without an error, if
/// there is none or an empty one.
bool readStubAttribute(const char* path, std::vector<char>& stubData);

/// Takes stub data apart, metadata of any length: 0, or -1 with the error set. `meta` ends in a NUL.
int decodeStubData(QZHSMLowLevel& backEnd, const char* path, const std::vector<char>& stubData,
                   std::vector<char>& meta, long long& size);
