#include "platform/mounts/QZHSMMigratedDirTrees.h"

#include "platform/config/ConfigFile.h"
#include "platform/logging/EvDebug.h"

#include <cstring>
#include <fstream>
#include <string_view>

namespace {

std::string_view withoutTrailingSlashes(std::string_view dir) {
    while (dir.size() > 1 && dir.back() == '/')
        dir.remove_suffix(1);
    return dir;
}

} // namespace

QZHSMMigratedDirTrees::QZHSMMigratedDirTrees(bool wholeTrees, const char* clientName)
    : m_wholeTrees(wholeTrees) {
    const ConfigFile config = ConfigFile::read();
    const std::string* listFile = config.value("MigratedDirTrees", clientName);
    if (!listFile)
        return;
    std::ifstream list(*listFile);
    if (!list)
        EvDebug(nullptr).Error("QZHSMMigratedDirTrees::QZHSMMigratedDirTrees", "Failed to open %s: %s",
                               listFile->c_str(), std::strerror(errno));
    for (std::string line; std::getline(list, line);)
        if (!line.empty())
            m_dirs.emplace_back(withoutTrailingSlashes(line));
}

int QZHSMMigratedDirTrees::wasDirMigrated(const char* path, std::string* dir) const {
    const std::string_view asked = withoutTrailingSlashes(path);
    for (const std::string& tree : m_dirs) {
        const bool below =
            m_wholeTrees && asked.starts_with(tree) && (tree == "/" || asked[tree.size()] == '/');
        if (asked == tree || below) {
            *dir = tree;
            return 1;
        }
    }
    return 0;
}
