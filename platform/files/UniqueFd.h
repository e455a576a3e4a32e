#pragma once

#include <unistd.h>
#include <utility>

/// Owns a descriptor and closes it.
class UniqueFd {
public:
    /// Takes over an open descriptor, or a negative number, which stands for none.
    explicit UniqueFd(int fd = -1) : m_fd(fd) {}
    /// Takes over the other's descriptor.
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    /// Swaps: what was held before is closed with `other`.
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    /// Whether it holds a descriptor.
    bool isOpen() const { return m_fd >= 0; }
    /// The descriptor, which stays this object's; negative if there is none.
    int get() const { return m_fd; }
    /// The descriptor, which is the caller's to close from now on.
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};
