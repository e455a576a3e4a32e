#include "platform/mounts/QZHSMMntTab.h"

#include "platform/files/utf_files.h"
#include "platform/mounts/PathPrefix.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <mntent.h>
#include <sys/stat.h>

namespace {

/// The path itself, or the nearest of its parents that exists, without symbolic links; empty if none does.
std::string nearestExisting(std::string path) {
    char resolved[PATH_MAX];
    while (!::realpath(path.empty() ? "." : path.c_str(), resolved)) {
        if (path.empty() || path == "/")
            return {};
        const size_t slash = path.find_last_of('/');
        path.resize(slash == std::string::npos ? 0 : std::max<size_t>(slash, 1)); // "/a" lies in "/"
    }
    return resolved;
}

/// Whether the directory is where a mount begins. It is not if a later mount on one of its parents hides it.
bool isMountRoot(const std::string& directory) {
    struct statx st {};
    return ::statx(AT_FDCWD, directory.c_str(), AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT, 0, &st) != 0 ||
           (st.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0 ||
           (st.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

} // namespace

QZHSMMntTab::QZHSMMntTab() {
    const std::unique_ptr<FILE, int (*)(FILE*)> table(::setmntent("/proc/self/mounts", "re"), ::endmntent);
    if (!table) {
        m_status = errno;
        return;
    }
    struct mntent entry {};
    std::vector<char> texts(16384); // a path and options of overlay mounts can take kilobytes
    while (::getmntent_r(table.get(), &entry, texts.data(), static_cast<int>(texts.size())))
        m_entries.push_back({entry.mnt_fsname, entry.mnt_dir,
                             static_cast<unsigned char>(::hasmntopt(&entry, MNTOPT_RO) != nullptr),
                             entry.mnt_type, entry.mnt_opts});
    if (::ferror(table.get())) {
        m_status = errno;
        m_entries.clear();
    }
}

const QZHSMMntTab::Entry* QZHSMMntTab::find(const char* path) const {
    const std::string real = nearestExisting(LocalPath(path).c_str());
    const Entry* best = nullptr;
    for (const Entry& entry : m_entries)
        if (!real.empty() && liesIn(entry.mountDir, real) &&
            (!best || entry.mountDir.size() >= best->mountDir.size()) && isMountRoot(entry.mountDir))
            best = &entry;
    return best;
}
