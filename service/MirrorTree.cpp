#include "service/MirrorTree.h"

#include "service/FileIo.h"

#include <cerrno>
#include <fcntl.h>

MirrorTree::MirrorTree(const std::string& directory)
    : m_name(directory), m_directory(openDirectory(directory)) {}

OpenFile MirrorTree::counterpartOf(const OpenFile& file) const {
    std::string_view rest = file.relative();
    rest.remove_prefix(std::min(rest.find_first_not_of('/'), rest.size()));
    const std::string name = m_name + "/" + std::string(rest);
    UniqueFd held;
    int directory = m_directory.get();
    for (;;) {
        const size_t slash = rest.find('/');
        const std::string part(rest.substr(0, slash));
        if (part == "..")
            throw Failure(QZHSM_FAILURE, name + ": \"..\" has no counterpart");
        if (slash == std::string::npos) {
            OpenFile found = OpenFile::in(directory, part.c_str(), name);
            if (!S_ISREG(found.stat().st_mode))
                throw Failure(QZHSM_FAILURE, name + " is no regular file");
            return found;
        }
        rest.remove_prefix(slash + 1);
        if (part.empty())
            continue;
        UniqueFd next(::openat(directory, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next.isOpen())
            throw systemFailure("Failed to open ", name, errno);
        held = std::move(next);
        directory = held.get();
    }
}
