#include "platform/watch/FileSystems.h"

#include "platform/watch/PreContentGroup.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

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

/// What a group's marks tell, as the kernel shows them in this file.
std::set<dev_t> markedIn(const std::string& descriptor) {
    std::set<dev_t> marked;
    std::ifstream list(descriptor);
    for (std::string line; std::getline(list, line);) {
        unsigned number = 0; // as the kernel keeps it
        unsigned mask = 0;
        constexpr unsigned kMinorBits = 20;
        constexpr unsigned kMinorMask = (1U << kMinorBits) - 1;
        if (std::sscanf(line.c_str(), "fanotify sdev:%x mflags:%*x mask:%x", &number, &mask) == 2 &&
            (mask & kPreAccess) != 0)
            marked.insert(makedev(number >> kMinorBits, number & kMinorMask));
    }
    return marked;
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
    return markedIn("/proc/self/fdinfo/" + std::to_string(group));
}

pid_t watcherOf(dev_t fileSystem) {
    namespace fs = std::filesystem;
    std::error_code gone; // processes and descriptors come and go meanwhile
    for (const auto& process : fs::directory_iterator("/proc", gone)) {
        const pid_t pid = std::atoi(process.path().filename().c_str());
        if (pid == 0 || pid == ::getpid() || pid == ::getppid())
            continue;
        for (const auto& entry : fs::directory_iterator(process.path() / "fd", gone))
            if (fs::read_symlink(entry.path(), gone) == "anon_inode:[fanotify]" &&
                markedIn(process.path() / "fdinfo" / entry.path().filename()).contains(fileSystem))
                return pid;
    }
    return 0;
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
