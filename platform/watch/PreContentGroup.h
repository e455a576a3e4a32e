#pragma once

#include "platform/files/UniqueFd.h"

#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

constexpr std::uint64_t kPreAccess = 0x100000; ///< the event's bit, which older headers lack

/// An access to a file that the kernel holds until it is answered.
struct HeldAccess {
    int fd;               ///< the file, open for reading; to read through it raises no event
    pid_t tid;            ///< the thread that waits, or 0 if it is not known
    bool isOpen;          ///< it opens the file; else it accesses a range of it
    std::uint64_t offset; ///< of the range, in bytes, rounded to pages
    std::uint64_t count;  ///< 0 if there is no range
};

/// The kernel's events before files are opened, read and written (fanotify's pre-content class, Linux 6.14).
/// Whoever opens or accesses a file of a marked file system waits for an answer, as long as some process has
/// the group open: if none has, all are let through. Operations return 0 or an errno.
///
/// The descriptors of held accesses stay open when a program is executed, and are told from all others by
/// their flags, so that a process which takes over can answer what another one has read.
class PreContentGroup {
public:
    PreContentGroup() = default;
    /// Takes over a group. `threads` is noted who waits behind which number, for a process that takes over:
    /// it lies in memory that all these processes share, and all that answer for the group have it.
    explicit PreContentGroup(UniqueFd group, std::span<pid_t> threads = {})
        : m_group(std::move(group)), m_threads(threads) {}

    /// Makes a group; the descriptor is open across exec. EINVAL: the kernel has no such events; EPERM: the
    /// process lacks CAP_SYS_ADMIN.
    int create();
    int descriptor() const { return m_group.get(); }

    /// From now on every open and access on the file system that holds the directory waits. EOPNOTSUPP or
    /// EINVAL: this file system has no such events.
    int mark(const std::string& directory);

    /// Ends that. What waits already is read nevertheless.
    int unmark(const std::string& directory);

    /// Opens and accesses of this file, or accesses alone, no longer wait, until `heed`, or until the kernel
    /// forgets its inode. The descriptor must be open for reading.
    enum class Ignored { All, Accesses };
    int ignore(int fd, Ignored what = Ignored::All);
    /// Ends `ignore`, if it was in force.
    int heed(int fd);
    /// Of all files.
    void heedAll();

    /// Adds what waits, if anything does. EAGAIN: nothing does, or somebody holds a lease on the next one's
    /// file, and whoever opened that got EPERM. EMFILE: the descriptor table was full, and a reader got
    /// EPERM.
    int read(std::vector<HeldAccess>& held);

    /// Lets an access go on.
    void allow(int fd);
    /// Has an access fail with `err`, an errno below 256.
    void deny(int fd, int err);
    /// Answers, with `err`, whatever an earlier process has read and not answered under this number.
    void denyNumber(int number, int err);

    /// The thread that waits behind a descriptor which another process has read, or 0 if it is not known.
    pid_t threadOf(int fd) const;

    /// Whether a descriptor of this process is that of a held access.
    static bool isHeldAccess(int fd);

private:
    void answer(int fd, std::uint32_t response);
    void note(int fd, pid_t thread);

    UniqueFd m_group;
    std::span<pid_t> m_threads;
};
