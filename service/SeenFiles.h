#pragma once

#include <mutex>
#include <set>
#include <sys/stat.h>
#include <utility>

/// The files with several names that the workers of one run have met.
class SeenFiles {
public:
    /// Why one that is not new is left alone.
    static constexpr const char* kReason = "it was met under another name";

    /// True for the first time, and for a file with one name.
    bool isNew(const struct stat& st) {
        if (st.st_nlink < 2)
            return true;
        const std::lock_guard lock(m_mutex);
        return m_seen.emplace(st.st_dev, st.st_ino).second;
    }

private:
    std::mutex m_mutex;
    std::set<std::pair<dev_t, ino_t>> m_seen;
};
