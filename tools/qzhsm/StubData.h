#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <string>
#include <vector>

/// Whether the file is a stub, asked so that a stub which may not be looked at is a failure and no "no".
bool isStubFile(QZHSMLowLevel& backEnd, const std::string& path, const struct stat& st);

/// Whether the bytes begin with valid stub text.
bool beginsWithStubText(const std::vector<char>& bytes);

/// What is wrong with stub data for a file of `size` bytes, or nothing.
std::string misfit(const std::vector<char>& stubData, long long size);

/// The stub data in a file, or a failure where that is anything but whole stub data.
std::vector<char> readStubData(const std::string& path);
