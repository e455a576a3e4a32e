#pragma once

#include <map>
#include <string>

/// The library's configuration, read afresh whenever it is asked for: "/etc/qzhsm/qzhsm.conf", or the file
/// that the environment variable QZHSM_CONFIG names. Sections and keys are case-sensitive; of a key given
/// twice the last counts. A missing file is an empty configuration. A file that cannot be read, and each of
/// its lines that cannot, is one error line in the log.
class ConfigFile {
public:
    using Section = std::map<std::string, std::string, std::less<>>;

    static ConfigFile read();

    /// Null where there is no such section.
    const Section* section(const std::string& name) const;
    /// Null where there is no such section or key.
    const std::string* value(const std::string& section, const std::string& key) const;

private:
    std::map<std::string, Section, std::less<>> m_sections;
};
