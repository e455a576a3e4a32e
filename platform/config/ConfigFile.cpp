#include "platform/config/ConfigFile.h"

#include "platform/logging/EvDebug.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ini.h>
#include <vector>

namespace {

constexpr const char* kDefaultPath = "/etc/qzhsm/qzhsm.conf";

const std::string kTooLong = "too long"; // NOLINT(cert-err58-cpp): short enough not to allocate

/// Feeds libinih line by line. libinih tells only the first line that it cannot read, so such a line is
/// blanked and the text is read again until all of it is accepted.
struct Lines {
    std::vector<std::string> lines;
    size_t next = 0;

    static char* feed(char* into, int room, void* self) {
        auto& source = *static_cast<Lines*>(self);
        if (source.next >= source.lines.size())
            return nullptr;
        const std::string& line = source.lines[source.next++];
        // libinih takes what is left of a line that fills its buffer for a line of its own; a line without
        // a "=" is one that it reports.
        const std::string& fed = line.size() < static_cast<size_t>(room) ? line : kTooLong;
        into[fed.copy(into, static_cast<size_t>(room) - 1)] = '\0';
        return into;
    }
};

} // namespace

ConfigFile ConfigFile::read() {
    const char* named = secure_getenv("QZHSM_CONFIG");
    const std::string path = named ? named : kDefaultPath;
    ConfigFile config;
    EvDebug log(nullptr);

    errno = 0;
    std::ifstream file(path);
    if (!file) {
        if (errno != ENOENT)
            log.Error("ConfigFile::read", "Failed to open %s: %s", path.c_str(), std::strerror(errno));
        return config;
    }
    Lines source;
    for (std::string line; std::getline(file, line);)
        source.lines.push_back(line);

    const auto store = [](void* sections, const char* section, const char* key, const char* value) {
        (*static_cast<decltype(config.m_sections)*>(sections))[section][key] = value;
        return 1;
    };
    for (;;) {
        config.m_sections.clear();
        source.next = 0;
        const int badLine = ini_parse_stream(Lines::feed, &source, store, &config.m_sections);
        if (badLine <= 0)
            return config;
        log.Error("ConfigFile::read", "%s:%d: cannot be read, the line is skipped", path.c_str(), badLine);
        source.lines[static_cast<size_t>(badLine) - 1].clear();
    }
}

const ConfigFile::Section* ConfigFile::section(const std::string& name) const {
    const auto found = m_sections.find(name);
    return found == m_sections.end() ? nullptr : &found->second;
}

const std::string* ConfigFile::value(const std::string& section, const std::string& key) const {
    const Section* keys = this->section(section);
    if (!keys)
        return nullptr;
    const auto found = keys->find(key);
    return found == keys->end() ? nullptr : &found->second;
}
