#pragma once

#include "platform/Export.h"

#include <string>
#include <vector>

/// The mount table as it stood when the object was made; empty if it could not be read.
class QZHSM_API QZHSMMntTab {
public:
    /// One mount. Texts are bytes as the kernel has them, in no encoding.
    struct Entry {
        std::string device;         ///< a block device's path, or whatever name the file system goes by
        std::string mountDir;       ///< where it is mounted: an absolute path
        unsigned char readOnly = 0; ///< 1 if it is, else 0
        std::string fsType;         ///< such as "ext4"
        std::string options;        ///< joined by commas
    };

    /// Reads the table of this process's mount namespace.
    QZHSMMntTab();

    /// In mount order: of two entries with one directory the later hides the earlier.
    const std::vector<Entry>& entries() const { return m_entries; }
    /// 0, or the errno that reading the table met.
    int status() const { return m_status; }

    /// The entry of the file system that holds the path. For a path that does not exist that is the file
    /// system of its nearest existing parent directory. Null if no entry fits, as for a
    /// path outside of every mount in a changed root directory.
    const Entry* find(const char* path) const;

private:
    std::vector<Entry> m_entries;
    int m_status = 0;
};
