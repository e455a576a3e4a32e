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

    /// It was not worked on after all, and somebody may come back to it.
    void forget(const struct stat& st) {
        const std::lock_guard lock(m_mutex);
        m_seen.erase({st.st_dev, st.st_ino});
    }

private:
    std::mutex m_mutex;
    std::set<std::pair<dev_t, ino_t>> m_seen;
};
