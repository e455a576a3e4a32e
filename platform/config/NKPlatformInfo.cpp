#include "platform/config/NKPlatformInfo.h"

#include <cstring>

int NKPlatformInfo::getString(const char* section, const char* key, char* buffer, int* size) const {
    const std::string* value = m_config.value(section, key);
    if (!value || *size <= 0 || value->size() >= static_cast<size_t>(*size))
        return -1;
    std::memcpy(buffer, value->c_str(), value->size() + 1);
    *size = static_cast<int>(value->size());
    return 0;
}
