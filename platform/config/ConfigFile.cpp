#include "platform/config/ConfigFile.h"

#include "platform/config/TextFile.h"
#include "platform/errors/ErrorText.h"
#include "platform/logging/EvDebug.h"

#include <cerrno>
#include <cstdlib>
#include <ini.h>
#include <vector>

namespace {

constexpr const char* kDefaultPath = "/etc/qzhsm/qzhsm.conf";

constexpr const char* kTooLong = "too long";

constexpr size_t kSectionMax = 49; ///< libinih cuts longer names

/// Feeds libinih line by line. libinih tells only the first line that it cannot read, so such a line is
/// blanked and the text is read again until all of it is accepted.
struct Lines {
    std::vector<std::string> lines;
    size_t next = 0;

    static char* feed(char* into, int room, void* self) {
        auto& source = *static_cast<Lines*>(self);
        if (source.next >= source.lines.size())
            return nullptr;
        const std::string fed = readable(source.lines[source.next++], static_cast<size_t>(room));
        into[fed.copy(into, fed.size())] = '\0';
        return into;
    }

    /// What libinih would misread in silence becomes what it reads right, or a line that it reports.
    static std::string readable(const std::string& line, size_t room) {
        const size_t start = line.find_first_not_of(" \t"); // an indented line would continue the one before
        if (start == std::string::npos || line[start] == ';' || line[start] == '#')
            return "";
        const bool longSection = line[start] == '[' && line.find(']') > start + 1 + kSectionMax;
        return longSection || line.size() - start >= room ? kTooLong : line.substr(start);
    }
};

} // namespace

ConfigFile ConfigFile::read() {
    const char* named = secure_getenv("QZHSM_CONFIG");
    const std::string path = named ? named : kDefaultPath;
    ConfigFile config;
    EvDebug log(nullptr);

    Lines source;
    const int err = readLines(path, source.lines);
    if (err != 0 && err != ENOENT)
        log.Error("ConfigFile::read", "%s", errnoText({"Failed to read ", path}, err).c_str());

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
