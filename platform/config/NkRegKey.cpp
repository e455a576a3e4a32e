#include "platform/config/NkRegKey.h"

int NkRegKey::open(const std::string& path, bool) {
    const ConfigFile config = ConfigFile::read();
    const ConfigFile::Section* section = config.section(path);
    if (!section)
        return -1;
    m_values = *section;
    return 0;
}

const char* NkRegKey::getValue(const char* name) const {
    const auto found = m_values.find(name);
    return found == m_values.end() ? nullptr : found->second.c_str();
}
