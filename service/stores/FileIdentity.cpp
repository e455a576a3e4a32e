#include "service/stores/FileIdentity.h"

#include "platform/files/FdPath.h"
#include "service/Failure.h"
#include "service/stores/Encoding.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <map>
#include <mutex>
#include <optional>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>

namespace {

/// The kernel's record of a file system's UUID; headers older than 6.9 lack it.
struct FsUuid {
    std::uint8_t length;
    std::uint8_t uuid[16];
};
constexpr unsigned long kGetFsUuid = _IOR(0x15, 0, FsUuid);

constexpr std::string_view kNoFsid = "0000000000000000";

std::string_view bytesOf(const void* start, size_t size) {
    return {static_cast<const char*>(start), size};
}

std::optional<std::string> readUuid(int fd) {
    FsUuid uuid{};
    if (::ioctl(fd, kGetFsUuid, &uuid) < 0)
        return {};
    return uuid.length <= sizeof uuid.uuid ? hexText(bytesOf(uuid.uuid, uuid.length)) : std::string();
}

/// The UUID of a file's file system; empty if that has none.
std::string uuidOf(int fd) {
    std::optional<std::string> uuid = readUuid(fd);
    struct stat st {};
    if (uuid || errno != EBADF || ::fstat(fd, &st) < 0)
        return uuid.value_or("");
    // The descriptor is a place alone (O_PATH). To open each file only to ask this would be too much.
    static std::mutex mutex;
    static std::map<dev_t, std::string> known;
    const std::lock_guard lock(mutex);
    if (const auto found = known.find(st.st_dev); found != known.end())
        return found->second;
    const UniqueFd file(::open(fdPath(fd).c_str(), O_RDONLY | O_NONBLOCK | O_NOATIME | O_CLOEXEC));
    uuid = file.isOpen() ? readUuid(file.get()) : std::nullopt;
    return uuid ? known[st.st_dev] = *uuid : "";
}

} // namespace

FileIdentity FileIdentity::of(int fd, const std::string& name) {
    FileIdentity identity;
    alignas(file_handle) char room[sizeof(file_handle) + MAX_HANDLE_SZ] = {};
    auto* handle = reinterpret_cast<file_handle*>(room);
    handle->handle_bytes = MAX_HANDLE_SZ;
    int mount = 0;
    if (::name_to_handle_at(fd, "", handle, &mount, AT_EMPTY_PATH) == 0) {
        identity.handleType = handle->handle_type;
        identity.handle = bytesOf(handle->f_handle, handle->handle_bytes);
    } else if (errno != EOPNOTSUPP && errno != EOVERFLOW && errno != ENOSYS) {
        throw systemFailure("Failed to get the file handle of ", name, errno);
    }

    struct statfs fs {};
    if (::fstatfs(fd, &fs) < 0)
        throw systemFailure("Failed to look at the file system of ", name, errno);
    std::uint64_t fsid = 0;
    static_assert(sizeof fsid == sizeof fs.f_fsid);
    std::memcpy(&fsid, &fs.f_fsid, sizeof fsid);
    identity.fsid = hexText(fsid);

    identity.fsUuid = uuidOf(fd);
    // Numbers that FUSE counts up while it is mounted, the same on every such mount.
    if (fs.f_type == FUSE_SUPER_MAGIC && identity.fsUuid.empty())
        identity.handle.clear();
    return identity;
}

UniqueFd FileIdentity::open(int mount) const {
    alignas(file_handle) char room[sizeof(file_handle) + MAX_HANDLE_SZ] = {};
    auto* found = reinterpret_cast<file_handle*>(room);
    if (handle.empty() || handle.size() > MAX_HANDLE_SZ) {
        errno = EINVAL;
        return UniqueFd();
    }
    found->handle_bytes = static_cast<unsigned>(handle.size());
    found->handle_type = handleType;
    std::memcpy(found->f_handle, handle.data(), handle.size());
    return UniqueFd(::open_by_handle_at(mount, found, O_PATH | O_CLOEXEC));
}

bool FileIdentity::isNameless() const {
    return fsUuid.empty() && fsid == kNoFsid;
}

bool FileIdentity::isBeside(const FileIdentity& other) const {
    const bool haveUuids = !fsUuid.empty() && !other.fsUuid.empty();
    return haveUuids ? fsUuid == other.fsUuid : fsid != kNoFsid && fsid == other.fsid;
}

bool FileIdentity::matches(const FileIdentity& other) const {
    return !handle.empty() && handleType == other.handleType && handle == other.handle &&
           (isBeside(other) || (isNameless() && other.isNameless()));
}
