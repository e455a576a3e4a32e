#pragma once

#include "platform/config/ConfigFile.h"

#include <string>

/// A configuration key: the section whose name is the key's path.
class NkRegKey {
public:
    explicit NkRegKey(bool) {}

    /// 0 where the section exists, else -1.
    int open(const std::string& path, bool);
    /// The value's text, which lives as long as this key stays open, or null where there is none.
    const char* getValue(const char* name) const;

private:
    ConfigFile::Section m_values;
};
