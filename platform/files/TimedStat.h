#pragma once

#include <sys/stat.h>

/// An lstat that gives up. What the kernel has in its memory about a local file is answered at once. Any
/// other call runs on a helper thread of the calling thread, started by the first one and reused from then
/// on. A helper that hangs in a dead file system is replaced, and ends once its call returns. An
/// identity or working directory that only the calling thread has, and has changed since, is not the
/// helper's. Whether a file system is local is asked with AT_STATX_DONT_SYNC, which some network ones do not
/// heed.
class TimedStat {
public:
    explicit TimedStat(int timeoutSeconds) : m_timeoutSeconds(timeoutSeconds) {}

    /// Takes a UTF-8 path. The filled record, which lives as long as this object, or null with the reason in
    /// `getErrno`: ETIMEDOUT if the time ran out, ENOMEM if an allocation failed, else lstat's errno or that
    /// of the failed start of the helper. Throws nothing.
    const struct stat* class_lstat(const char* path);
    int getErrno() const { return m_errno; }

private:
    int m_timeoutSeconds;
    int m_errno = 0;
    struct stat m_stat {};
};
