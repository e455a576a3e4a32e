#include "platform/config/NkRegKey.h"

int NkRegKey::open(const std::string& path, bool) {
    m_values.clear();
    const ConfigFile config = ConfigFile::read();
    if (config.status() != 0)
        return config.status();
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
