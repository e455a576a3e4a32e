#pragma once

#include "service/OpenFile.h"

#include <string>

/// A directory that holds, under the same relative paths, what belongs to the files of another tree: their
/// archived copies, for one.
class MirrorTree {
public:
    explicit MirrorTree(const std::string& directory);

    /// The regular file at the same path (`OpenFile::relative`) below this directory. No symbolic link is
    /// followed there, and nothing outside is reached.
    OpenFile counterpartOf(const OpenFile& file) const;

private:
    std::string m_name;
    UniqueFd m_directory;
};
