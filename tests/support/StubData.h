#pragma once

#include "platform/stub/StubText.h"

#include <string>
#include <vector>

/// The stub text of a file of `size` bytes.
inline std::string stubText(const std::string& meta, long long size) {
    std::string text(static_cast<size_t>(qzhsm_meta2stub(meta.c_str(), size, nullptr, 0)), '\0');
    qzhsm_meta2stub(meta.c_str(), size, text.data(), static_cast<int>(text.size()));
    return text;
}

/// As operations on stub data take it and hand it out.
inline std::vector<char> bytes(const std::string& text) {
    return {text.begin(), text.end()};
}
