#pragma once

#include <string>
#include <string_view>
#include <vector>

/// `; did you mean "WORD"?` with the word that `typed` may be a slip for; nothing if there is none.
std::string suggestion(std::string_view typed, const std::vector<std::string>& words);
