#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

/// Whether the bytes begin with valid stub text.
bool beginsWithStubText(std::span<const char> bytes);

/// What stub data says. Lengths are in bytes.
struct StubFacts {
    int textLength;
    long long fileSize; ///< of the file that was stubbed
    std::string meta;
};
/// Nothing for stub data that is not valid.
std::optional<StubFacts> readFacts(const std::string& text);
std::optional<StubFacts> readFacts(const std::vector<char>& stubData);

/// The stub text of a file of that size; empty if no stub text can hold such metadata.
std::string stubTextOf(const std::string& meta, long long fileSize);

/// What is wrong with such stub data on a file of `size` bytes; empty if it fits.
std::string misfit(const std::optional<StubFacts>& facts, long long size);

/// The stub data that was saved in a file. Throws `Failure` if that is anything but whole stub data.
std::vector<char> readSavedStub(const std::string& path);
