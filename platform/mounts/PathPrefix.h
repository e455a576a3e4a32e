#pragma once

#include <string_view>

/// Whether `path` is `dir` or lies below it, by their texts alone. Neither ends in "/", but for the root.
inline bool liesIn(std::string_view dir, std::string_view path) {
    return dir == "/" || (path.starts_with(dir) && (path.size() == dir.size() || path[dir.size()] == '/'));
}
