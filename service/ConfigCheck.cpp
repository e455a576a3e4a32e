#include "service/ConfigCheck.h"

#include "platform/config/ConfigFile.h"
#include "platform/errors/FXString.h"
#include "service/Spelling.h"

#include <algorithm>
#include <cstdlib>
#include <fnmatch.h>

namespace {

struct KnownSection {
    const char* name; ///< "*" stands for any name
    std::vector<std::string> keys;
};

/// All that the configuration can hold: docs/configuration.md tells what it means.
const std::vector<KnownSection>& knownSections() {
    static const std::vector<KnownSection> known{
        {"FileSystemAgent", {"sArchiveNonExtData"}},
        {"Focus", {"instance", "clientName"}},
        {"MigratedDirTrees", {"*"}},
        {"Tessly/*/JRN", {"nINSTALL"}},
        {"Tessly/*/Sortwell", {"nINSTALL"}},
        {"Lustre", {"archiveTimeout"}},
        {"GlusterFS", {"storeId"}},
        {"Service",
         {"recall", "rangePrograms", "rangeFrom", "refusePrograms", "bandwidth", "workers",
          "runtimeDirectory"}},
        {"Store/*", {"directory", "put", "get", "remove", "list", "timeout"}},
    };
    return known;
}

std::string sectionProblem(const std::string& section) {
    if (section.empty())
        return "it belongs to no section";
    std::vector<std::string> beginnings;
    for (const KnownSection& known : knownSections()) {
        const std::string name = known.name;
        beginnings.push_back(name.substr(0, name.find('/')));
    }
    if (std::ranges::find(beginnings, section) != beginnings.end())
        return "[" + section + "] lacks a name, as in [" + section + "/NAME]";
    return "there is no section [" + section + "]" +
           suggestion(section.substr(0, section.find('/')), beginnings);
}

/// Nothing for a key that means something.
std::string problem(const ConfigFile::Entry& entry) {
    const auto known = std::ranges::find_if(knownSections(), [&](const KnownSection& section) {
        return ::fnmatch(section.name, entry.section.c_str(), FNM_NOESCAPE) == 0;
    });
    if (known == knownSections().end())
        return sectionProblem(entry.section);
    const bool means = std::ranges::any_of(
        known->keys, [&](const std::string& key) { return key == "*" || key == entry.key; });
    return means ? ""
                 : "[" + entry.section + "] has no key " + entry.key + suggestion(entry.key, known->keys);
}

} // namespace

std::vector<std::string> configWarnings() {
    const ConfigFile config = ConfigFile::read();
    const std::string path = ConfigFile::path();
    std::vector<std::string> warnings;
    if (config.isMissing() && ::secure_getenv("QZHSM_CONFIG"))
        warnings.push_back("QZHSM_CONFIG names " + path + ", which does not exist");
    for (const ConfigFile::Entry& entry : config.entries())
        if (const std::string found = problem(entry); !found.empty())
            warnings.push_back(
                FXString::Format("%s:%zu: %s is ignored: ", path.c_str(), entry.line, entry.key.c_str()) +
                found);
    return warnings;
}
