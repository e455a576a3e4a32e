#pragma once

#include <string>
#include <vector>

/// The directory trees that the HSM service migrates for a client. The configuration's section
/// "MigratedDirTrees" names for each client the file that lists them, one directory a line.
class QZHSMMigratedDirTrees {
public:
    /// Reads the list. With `wholeTrees` false only the listed directories themselves count, not what lies
    /// below them. No list is an empty list; one that cannot be read is an error line in the log too.
    QZHSMMigratedDirTrees(bool wholeTrees, const char* clientName);

    /// Non-zero if `path` lies in a migrated tree, by its text alone; `*dir` is then that tree's directory.
    int wasDirMigrated(const char* path, std::string* dir) const;

private:
    bool m_wholeTrees;
    std::vector<std::string> m_dirs;
};
