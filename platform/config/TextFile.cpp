#include "platform/config/TextFile.h"

#include "platform/files/UniqueFd.h"

#include <cerrno>
#include <fcntl.h>
#include <sstream>

int readLines(const std::string& path, std::vector<std::string>& lines) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen())
        return errno;
    std::string text;
    char piece[4096];
    while (const ssize_t got = ::read(file.get(), piece, sizeof piece)) {
        if (got > 0)
            text.append(piece, static_cast<size_t>(got));
        else if (errno != EINTR)
            return errno;
    }
    std::istringstream whole(text);
    for (std::string line; std::getline(whole, line);) {
        if (line.ends_with('\r'))
            line.pop_back();
        lines.push_back(line);
    }
    return 0;
}
