#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

/// The system's text for `err`, as in "No such file or directory". The one place where an errno value becomes
/// text.
std::string errnoReason(int err);

/// The pieces joined, then ": " and the system's text for `err`, as in "Failed to stat /a/b: No such file
/// or directory".
std::string errnoText(std::initializer_list<std::string_view> pieces, int err);
