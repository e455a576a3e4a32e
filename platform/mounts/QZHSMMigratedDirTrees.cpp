#include "platform/mounts/QZHSMMigratedDirTrees.h"

#include "platform/config/ConfigFile.h"
#include "platform/config/TextFile.h"
#include "platform/errors/ErrorText.h"
#include "platform/logging/EvDebug.h"
#include "platform/mounts/PathPrefix.h"

namespace {

std::string withoutTrailingSlashes(std::string dir) {
    while (dir.size() > 1 && dir.back() == '/')
        dir.pop_back();
    return dir;
}

} // namespace

QZHSMMigratedDirTrees::QZHSMMigratedDirTrees(bool wholeTrees, const char* clientName)
    : m_wholeTrees(wholeTrees) {
    const ConfigFile config = ConfigFile::read();
    const std::string* listFile = config.value("MigratedDirTrees", clientName);
    if (!listFile)
        return;
    const int err = readLines(*listFile, m_dirs);
    if (err != 0)
        EvDebug(nullptr).Error("QZHSMMigratedDirTrees::QZHSMMigratedDirTrees", "%s",
                               errnoText({"Failed to read ", *listFile}, err).c_str());
    std::erase(m_dirs, "");
    for (std::string& dir : m_dirs)
        dir = withoutTrailingSlashes(dir);
}

int QZHSMMigratedDirTrees::wasDirMigrated(const char* path, std::string* dir) const {
    const std::string asked = withoutTrailingSlashes(path);
    for (const std::string& tree : m_dirs) {
        if (asked == tree || (m_wholeTrees && liesIn(tree, asked))) {
            *dir = tree;
            return 1;
        }
    }
    return 0;
}
