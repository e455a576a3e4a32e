#pragma once

#include <map>
#include <mutex>
#include <set>
#include <sys/stat.h>
#include <utility>
#include <vector>

/// The files with several names that the workers of one run have met, and all that they hold just now.
class SeenFiles {
    using File = std::pair<dev_t, ino_t>;
    struct Holders {
        int now = 0;
        int ever = 0; ///< since there was none
    };
    using Held = std::map<File, Holders>;

public:
    /// Why one that is not new is left alone.
    static constexpr const char* kReason = "it was met under another name";
    static constexpr const char* kHeldReason = "it was met before";

    /// The files that a worker has begun with, and those of its batch.
    class Batch {
    public:
        explicit Batch(SeenFiles& seen) : m_seen(seen) {}
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
        ~Batch() { clear(); }

        void add(const struct stat& st) {
            const std::lock_guard lock(m_seen.m_mutex);
            m_files.push_back(m_seen.m_held.try_emplace({st.st_dev, st.st_ino}).first);
            ++m_files.back()->second.now;
            ++m_files.back()->second.ever;
        }
        /// Whether a worker has held the last one as well since this one does, for it was named twice.
        bool isShared() const {
            const std::lock_guard lock(m_seen.m_mutex);
            return !m_files.empty() && m_files.back()->second.ever > 1;
        }
        void clear() {
            const std::lock_guard lock(m_seen.m_mutex);
            for (const auto& file : m_files)
                if (--file->second.now == 0)
                    m_seen.m_held.erase(file);
            m_files.clear();
        }

    private:
        SeenFiles& m_seen;
        std::vector<Held::iterator> m_files;
    };

    /// True for the first time, and for a file with one name.
    bool isNew(const struct stat& st) {
        if (st.st_nlink < 2)
            return true;
        const std::lock_guard lock(m_mutex);
        return m_seen.emplace(st.st_dev, st.st_ino).second;
    }

private:
    std::mutex m_mutex;
    std::set<File> m_seen;
    Held m_held;
};
