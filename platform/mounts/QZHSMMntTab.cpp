#include "platform/mounts/QZHSMMntTab.h"

#include "platform/files/utf_files.h"
#include "platform/mounts/PathPrefix.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mntent.h>

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
            (!best || entry.mountDir.size() >= best->mountDir.size()))
            best = &entry;
    return best;
}
