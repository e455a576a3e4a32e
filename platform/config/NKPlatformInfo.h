#pragma once

#include "platform/config/ConfigFile.h"

/// Reads the configuration when it is made.
class NKPlatformInfo {
public:
    /// Copies the value into `buffer`, NUL-terminated. `*size` is the buffer's size in bytes and becomes the
    /// value's length. -1 for a value that is absent or does not fit: buffer and size are then untouched.
    int getString(const char* section, const char* key, char* buffer, int* size) const;

private:
    ConfigFile m_config = ConfigFile::read();
};
