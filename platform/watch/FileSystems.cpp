#include "platform/watch/FileSystems.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

struct Mount {
    std::uint64_t id = 0;
    dev_t fileSystem = 0;
    std::string point;
};

/// The kernel writes blanks and the like as three octal digits.
std::string unescaped(const std::string& text) {
    constexpr int kOctal = 8;
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i)
        if (text[i] == '\\') {
            plain += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, kOctal));
            i += 3;
        } else {
            plain += text[i];
        }
    return plain;
}

void eachMount(const std::function<void(const Mount&)>& act) {
    std::ifstream list("/proc/self/mountinfo");
    for (std::string line; std::getline(list, line);) {
        std::istringstream words(line);
        Mount mount;
        unsigned majorNumber = 0;
        unsigned minorNumber = 0;
        char colon = 0;
        std::string parent;
        std::string root;
        if (words >> mount.id >> parent >> majorNumber >> colon >> minorNumber >> root >> mount.point) {
            mount.fileSystem = makedev(majorNumber, minorNumber);
            mount.point = unescaped(mount.point);
            act(mount);
        }
    }
}

} // namespace

dev_t fileSystemOf(const std::string& path) {
    struct statx st {};
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &st) < 0)
        return 0;
    dev_t found = 0;
    errno = ENOENT;
    eachMount([&](const Mount& mount) {
        if (mount.id == st.stx_mnt_id)
            found = mount.fileSystem;
    });
    return found;
}

std::set<std::string> mountPointsOf(dev_t fileSystem) {
    std::set<std::string> points;
    eachMount([&](const Mount& mount) {
        if (mount.fileSystem == fileSystem)
            points.insert(mount.point);
    });
    std::erase_if(points, [&](const std::string& point) { return fileSystemOf(point) != fileSystem; });
    return points;
}

std::set<dev_t> markedFileSystems(int group) {
    std::set<dev_t> marked;
    std::ifstream list("/proc/self/fdinfo/" + std::to_string(group));
    for (std::string line; std::getline(list, line);) {
        unsigned number = 0; // as the kernel keeps it
        constexpr unsigned kMinorBits = 20;
        constexpr unsigned kMinorMask = (1U << kMinorBits) - 1;
        if (std::sscanf(line.c_str(), "fanotify sdev:%x", &number) == 1)
            marked.insert(makedev(number >> kMinorBits, number & kMinorMask));
    }
    return marked;
}

std::set<dev_t> ownFileSystems() {
    std::set<dev_t> own;
    std::ifstream list("/proc/self/maps");
    for (std::string line; std::getline(list, line);) {
        unsigned majorNumber = 0;
        unsigned minorNumber = 0;
        if (std::sscanf(line.c_str(), "%*s %*s %*s %x:%x", &majorNumber, &minorNumber) == 2)
            own.insert(makedev(majorNumber, minorNumber));
    }
    own.erase(0); // memory
    return own;
}
