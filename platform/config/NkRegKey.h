#pragma once

#include "platform/config/ConfigFile.h"

#include <string>

/// A configuration key: the section whose name is the key's path. The flags have no effect; callers pass
/// true.
class NkRegKey {
public:
    explicit NkRegKey(bool) {}

    /// 0 if the section exists and has a key, -1 if not, else the (positive) errno of a configuration file
    /// that is there and cannot be read.
    int open(const std::string& path, bool);
    /// The value's text, which lives as long as this key stays open, or null if there is none.
    const char* getValue(const char* name) const;

private:
    ConfigFile::Section m_values;
};
