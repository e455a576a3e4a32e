#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <optional>
#include <string>
#include <vector>

/// Whether the bytes begin with valid stub text.
bool beginsWithStubText(const std::vector<char>& bytes);

/// What stub data says of itself and of its file, in bytes.
struct StubFacts {
    int textLength;
    long long fileSize;
};
/// Nothing for stub data that is not valid.
std::optional<StubFacts> readFacts(const std::vector<char>& stubData);

/// What is wrong with such stub data on a file of `size` bytes; empty where it fits.
std::string misfit(const std::optional<StubFacts>& facts, long long size);

/// The stub data in a file, or a failure where that is anything but whole stub data of which this back-end
/// can make a stub.
std::vector<char> readStubData(const QZHSMLowLevel& backEnd, const std::string& path);
