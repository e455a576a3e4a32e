#include "platform/config/ConfigFile.h"

#include "platform/config/TextFile.h"
#include "platform/errors/ErrorText.h"
#include "platform/logging/EvDebug.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <ini.h>
#include <mutex>
#include <new>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr std::string_view kBlanks = " \t\r\v\f";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr size_t kSectionMax = 49; ///< libinih cuts longer names

/// A line without its indentation, with which it would continue a value, and without the marks that editors
/// put before a text, of which libinih would skip the first and we would not know.
std::string_view trimmed(std::string_view line) {
    for (size_t skip = 1; skip > 0; line.remove_prefix(skip))
        skip = line.starts_with(kByteOrderMark) ? kByteOrderMark.size()
                                                : std::min(line.find_first_not_of(kBlanks), line.size());
    return line;
}

/// One pass of libinih over the text, line by line. libinih tells only the first line that it cannot read,
/// so such a line is replaced and the text is read again until all of it is accepted. No exception may pass
/// through libinih, which is C.
struct Pass {
    const std::vector<std::string>& lines;
    size_t next = 0;
    std::map<std::string, ConfigFile::Section, std::less<>> sections{};
    std::vector<ConfigFile::Entry> entries{};
    std::exception_ptr failure{};

    static char* feed(char* into, int room, void* self) noexcept {
        auto& pass = *static_cast<Pass*>(self);
        if (pass.next == pass.lines.size())
            return nullptr;
        const std::string_view line = readable(pass.lines[pass.next++], static_cast<size_t>(room));
        into[line.copy(into, line.size())] = '\0';
        return into;
    }

    /// What libinih would misread in silence becomes what it reads right, or a line that it reports.
    static std::string_view readable(std::string_view line, size_t room) {
        line = trimmed(line);
        if (line.starts_with(';') || line.starts_with('#'))
            return "";
        const bool longSection = line.starts_with('[') && line.find(']') > 1 + kSectionMax;
        const bool hasNul = line.find('\0') != std::string_view::npos;
        return longSection || hasNul || line.size() >= room ? "not readable" : line;
    }

    static int store(void* self, const char* section, const char* key, const char* value) noexcept {
        auto& pass = *static_cast<Pass*>(self);
        try {
            pass.sections[section][key] = value;
            pass.entries.push_back({section, key, pass.next});
        } catch (...) {
            pass.failure = std::current_exception();
        }
        return 1;
    }
};

/// A line that libinih accepts in place of one that it cannot read.
const char* replacement(std::string_view line) {
    return trimmed(line).starts_with('[') ? "[]" : "";
}

/// Tells what is wrong, unless it was told before: some settings are read with each call.
void tellOnce(const std::string& problem, const std::string& of) {
    static std::mutex mutex;
    static std::set<std::pair<std::string, std::string>> told;
    const std::lock_guard lock(mutex);
    if (told.emplace(problem, of).second)
        EvDebug(nullptr).Error("ConfigFile::read", "%s", problem.c_str());
}

} // namespace

std::string ConfigFile::path() {
    const char* named = secure_getenv("QZHSM_CONFIG");
    return named && *named ? named : "/etc/qzhsm/qzhsm.conf";
}

ConfigFile ConfigFile::read() {
    const std::string path = ConfigFile::path();
    ConfigFile config;

    std::vector<std::string> lines;
    const int err = readLines(path, lines);
    config.m_missing = err == ENOENT;
    if (err != 0 && err != ENOENT) {
        config.m_status = err;
        tellOnce(errnoText({"Failed to read ", path}, err), "");
    }
    for (;;) {
        Pass pass{lines};
        const int badLine = ini_parse_stream(Pass::feed, &pass, Pass::store, &pass);
        if (pass.failure)
            std::rethrow_exception(pass.failure);
        if (badLine < 0) // the one failure of libinih itself
            throw std::bad_alloc();
        if (badLine == 0) {
            config.m_sections = std::move(pass.sections);
            config.m_entries = std::move(pass.entries);
            return config;
        }
        std::string& line = lines[static_cast<size_t>(badLine) - 1];
        tellOnce(path + ':' + std::to_string(badLine) + ": cannot be read, the line is skipped", line);
        line = replacement(line);
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
