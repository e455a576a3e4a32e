#pragma once

#include <string>
#include <vector>

/// Appends a file's lines, without their ends: 0, or the errno that opening or reading the file met, with
/// nothing appended.
int readLines(const std::string& path, std::vector<std::string>& lines);
