#pragma once

#include <mutex>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <utility>

/// The files that the workers of one run have just now, and those with several names that they have met.
class SeenFiles {
    using Files = std::set<std::pair<dev_t, ino_t>>;

public:
    /// Why one that another worker has, or that is not new, is left alone.
    static constexpr const char* kReason = "it was met before";

    /// A file that is one worker's, for as long as the object lives.
    class Claim {
    public:
        Claim(SeenFiles& seen, Files::iterator file) : m_seen(&seen), m_file(file) {}
        Claim(Claim&& other) noexcept : m_seen(std::exchange(other.m_seen, nullptr)), m_file(other.m_file) {}
        Claim(const Claim&) = delete;
        Claim& operator=(const Claim&) = delete;
        Claim& operator=(Claim&&) = delete;
        ~Claim() {
            if (!m_seen)
                return;
            const std::lock_guard lock(m_seen->m_mutex);
            m_seen->m_claimed.erase(m_file);
        }

    private:
        SeenFiles* m_seen;
        Files::iterator m_file;
    };

    /// Nothing if a worker has it: it was named twice, or lies below a directory that was named too.
    std::optional<Claim> claim(const struct stat& st) {
        const std::lock_guard lock(m_mutex);
        const auto [file, isFree] = m_claimed.emplace(st.st_dev, st.st_ino);
        return isFree ? std::optional<Claim>(std::in_place, *this, file) : std::nullopt;
    }

    /// True for the first time, and for a file with one name.
    bool isNew(const struct stat& st) {
        if (st.st_nlink < 2)
            return true;
        const std::lock_guard lock(m_mutex);
        return m_seen.emplace(st.st_dev, st.st_ino).second;
    }

private:
    std::mutex m_mutex;
    Files m_claimed;
    Files m_seen;
};
