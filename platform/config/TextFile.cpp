#include "platform/config/TextFile.h"

#include <cerrno>
#include <fstream>

int readLines(const std::string& path, std::vector<std::string>& lines) {
    errno = 0;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return file.is_open() && !file.bad() ? 0 : errno;
}
