#pragma once

#include <string>
#include <string_view>

bool isUtf8(std::string_view text);

/// The text without control characters, each of which becomes "?": file names may hold anything. For a
/// terminal so do the controls beyond ASCII, and bytes that are not UTF-8, which some terminals take for
/// them.
std::string printable(std::string_view text, bool forTerminal);
