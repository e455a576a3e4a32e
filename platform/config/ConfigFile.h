#pragma once

#include <map>
#include <string>
#include <vector>

/// The library's configuration, read afresh each time it is asked for. Sections and keys are case-sensitive;
/// of a key given twice the last counts. A missing file is an empty configuration. A file that cannot be
/// read, and each line that cannot, is one error line in the log, which is not told again with each call. A
/// line, its indentation not counted, can be 199 bytes long, and a section's name 49. The keys below a
/// section's line that cannot be read belong to no section.
class ConfigFile {
public:
    using Section = std::map<std::string, std::string, std::less<>>;
    /// A key, where it stands.
    struct Entry {
        std::string section; ///< empty for a key that belongs to none
        std::string key;
        size_t line; ///< the first is 1
    };

    /// "/etc/qzhsm/qzhsm.conf", or the file that the environment variable QZHSM_CONFIG names.
    static std::string path();
    static ConfigFile read();

    /// 0, also for a missing file, or the errno that reading the file met; there are no sections then.
    int status() const { return m_status; }
    /// Whether there is no such file.
    bool isMissing() const { return m_missing; }
    /// All keys in the order of the file.
    const std::vector<Entry>& entries() const { return m_entries; }
    /// Null if there is no such section, or no key in it.
    const Section* section(const std::string& name) const;
    /// Null if there is no such section or key.
    const std::string* value(const std::string& section, const std::string& key) const;

private:
    std::map<std::string, Section, std::less<>> m_sections;
    std::vector<Entry> m_entries;
    int m_status = 0;
    bool m_missing = false;
};
