#include "platform/files/CachedStat.h"

#include "platform/files/UniqueFd.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

// The kernel's own numbers and records, which the system's headers may be too old to have.
constexpr unsigned kUniqueMount = 0x4000; // in statx
constexpr long kStatmount = 457;
constexpr std::uint64_t kSuperBlock = 1; // in statmount
constexpr std::uint64_t kGfs2Magic = 0x01161970;

struct MountRequest {
    std::uint32_t size;
    std::uint32_t spare;
    std::uint64_t mount;
    std::uint64_t mask;
};

struct MountAnswer {
    std::uint32_t size;
    std::uint32_t options;
    std::uint64_t mask;
    std::uint32_t deviceMajor;
    std::uint32_t deviceMinor;
    std::uint64_t magic;
    std::array<std::uint64_t, 60> rest;
};
static_assert(sizeof(MountRequest) == 24 && sizeof(MountAnswer) == 512);

/// Those with a block device of their own, and some without one. FUSE and the cluster file systems may have
/// one, and wait for others nevertheless.
bool isLocal(const MountAnswer& mount) {
    switch (mount.magic) {
    case BTRFS_SUPER_MAGIC:
    case TMPFS_MAGIC:
    case RAMFS_MAGIC:
        return true;
    case FUSE_SUPER_MAGIC:
    case OCFS2_SUPER_MAGIC:
    case kGfs2Magic:
        return false;
    default:
        return mount.deviceMajor != 0;
    }
}

/// Looks each mount up once. The kernel gives these numbers to no second mount.
bool isOnLocalMount(std::uint64_t mount) {
    struct Known {
        std::uint64_t mount;
        bool isLocal;
    };
    static thread_local std::array<Known, 8> known{};
    static thread_local size_t oldest = 0;
    const auto* found = std::ranges::find(known, mount, &Known::mount);
    if (found != known.end())
        return found->isLocal;
    const MountRequest request{sizeof request, 0, mount, kSuperBlock};
    MountAnswer answer{};
    if (::syscall(kStatmount, &request, &answer, sizeof answer, 0) != 0)
        return false;
    known[oldest] = {mount, isLocal(answer)};
    oldest = (oldest + 1) % known.size();
    return isLocal(answer);
}

timespec timeOf(const statx_timestamp& time) {
    return {time.tv_sec, time.tv_nsec};
}

void convert(const struct statx& from, struct stat& to) {
    to = {};
    to.st_dev = makedev(from.stx_dev_major, from.stx_dev_minor);
    to.st_ino = from.stx_ino;
    to.st_nlink = from.stx_nlink;
    to.st_mode = from.stx_mode;
    to.st_uid = from.stx_uid;
    to.st_gid = from.stx_gid;
    to.st_rdev = makedev(from.stx_rdev_major, from.stx_rdev_minor);
    to.st_size = static_cast<off_t>(from.stx_size);
    to.st_blksize = static_cast<blksize_t>(from.stx_blksize);
    to.st_blocks = static_cast<blkcnt_t>(from.stx_blocks);
    to.st_atim = timeOf(from.stx_atime);
    to.st_mtim = timeOf(from.stx_mtime);
    to.st_ctim = timeOf(from.stx_ctime);
}

} // namespace

bool cachedLstat(const char* path, struct stat& st) {
    open_how how{};
    how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_CACHED;
    const UniqueFd fd(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how)));
    if (!fd.isOpen())
        return false; // whatever is wrong with the path, an lstat tells
    // What is cached is enough to tell on which mount the file lies; on a local one it is all there is.
    struct statx answer {};
    constexpr unsigned kWanted = STATX_BASIC_STATS | kUniqueMount;
    if (::statx(fd.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, kWanted, &answer) != 0 ||
        (answer.stx_mask & kWanted) != kWanted)
        return false;
    if (!isOnLocalMount(answer.stx_mnt_id))
        return false;
    convert(answer, st);
    return true;
}
