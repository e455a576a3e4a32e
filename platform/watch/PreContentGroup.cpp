#include "platform/watch/PreContentGroup.h"
#include "platform/files/FdPath.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>

namespace {

// Headers older than the kernel lack these.
constexpr std::uint8_t kRangeRecord = 6;
constexpr std::uint32_t kErrnoShift = 24;
struct RangeRecord {
    fanotify_event_info_header header;
    std::uint32_t padding;
    std::uint64_t offset;
    std::uint64_t count;
};

constexpr std::uint64_t kEvents = FAN_OPEN_PERM | kPreAccess;

/// No other descriptor of ours is open for appending without writing. The kernel opens it while it hands out
/// the event: with O_NONBLOCK it waits for nobody who holds a lease on the file, which would hold up all
/// others.
constexpr int kHeldFlags = O_RDONLY | O_LARGEFILE | O_NOATIME | O_APPEND | O_NONBLOCK;

} // namespace

int PreContentGroup::create() {
    // Unlimited: on overflow the kernel lets everybody through.
    m_group = UniqueFd(::fanotify_init(FAN_CLASS_PRE_CONTENT | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE |
                                           FAN_UNLIMITED_MARKS | FAN_REPORT_TID,
                                       kHeldFlags));
    return m_group.isOpen() ? 0 : errno;
}

int PreContentGroup::mark(const std::string& directory) {
    return ::fanotify_mark(m_group.get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, kEvents, AT_FDCWD,
                           directory.c_str()) == 0
               ? 0
               : errno;
}

int PreContentGroup::unmark(const std::string& directory) {
    return ::fanotify_mark(m_group.get(), FAN_MARK_REMOVE | FAN_MARK_FILESYSTEM, kEvents, AT_FDCWD,
                           directory.c_str()) == 0
               ? 0
               : errno;
}

int PreContentGroup::ignore(int fd, Ignored what) {
    return ::fanotify_mark(m_group.get(), FAN_MARK_ADD | FAN_MARK_IGNORE_SURV | FAN_MARK_EVICTABLE,
                           what == Ignored::All ? kEvents : kPreAccess, fd, nullptr) == 0
               ? 0
               : errno;
}

int PreContentGroup::heed(int fd) {
    const int result = ::fanotify_mark(m_group.get(), FAN_MARK_REMOVE | FAN_MARK_IGNORE_SURV, kEvents,
                                       AT_FDCWD, fdPath(fd).c_str());
    return result == 0 || errno == ENOENT ? 0 : errno;
}

void PreContentGroup::heedAll() {
    ::fanotify_mark(m_group.get(), FAN_MARK_FLUSH, 0, AT_FDCWD, nullptr);
}

int PreContentGroup::read(std::vector<HeldAccess>& held) {
    alignas(
        fanotify_event_metadata) char buffer[4096]; // for some 170 events, each of which takes a descriptor
    const ssize_t got = ::read(m_group.get(), buffer, sizeof buffer);
    if (got < 0)
        return errno;
    ssize_t left = got;
    for (const auto* event = reinterpret_cast<const fanotify_event_metadata*>(buffer);
         FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
        if (event->fd < 0)
            continue;
        note(event->fd, event->pid);
        HeldAccess access{event->fd, event->pid, (event->mask & FAN_OPEN_PERM) != 0, 0, 0};
        const char* end = reinterpret_cast<const char*>(event) + event->event_len;
        for (const char* at = reinterpret_cast<const char*>(event) + event->metadata_len;
             at + sizeof(fanotify_event_info_header) <= end;) {
            RangeRecord record{};
            std::memcpy(&record.header, at, sizeof record.header);
            if (record.header.len < sizeof record.header)
                break;
            if (record.header.info_type == kRangeRecord && record.header.len >= sizeof record) {
                std::memcpy(&record, at, sizeof record);
                access.offset = record.offset;
                access.count = record.count;
            }
            at += record.header.len;
        }
        held.push_back(access);
    }
    return 0;
}

void PreContentGroup::answer(int fd, std::uint32_t response) {
    const fanotify_response answer{fd, response};
    // Fails for an access whose thread was killed meanwhile.
    static_cast<void>(::write(m_group.get(), &answer, sizeof answer) < 0);
}

pid_t PreContentGroup::threadOf(int fd) const {
    const auto number = static_cast<size_t>(fd);
    return number < m_threads.size() ? m_threads[number] : 0;
}

void PreContentGroup::note(int fd, pid_t thread) {
    const auto number = static_cast<size_t>(fd);
    if (number < m_threads.size())
        m_threads[number] = thread;
}

void PreContentGroup::allow(int fd) {
    note(fd, 0); // before the number can be another access's
    answer(fd, FAN_ALLOW);
    ::close(fd);
}

void PreContentGroup::deny(int fd, int err) {
    note(fd, 0);
    denyNumber(fd, err);
    ::close(fd);
}

void PreContentGroup::denyNumber(int number, int err) {
    answer(number, FAN_DENY | (static_cast<std::uint32_t>(err) << kErrnoShift));
}

bool PreContentGroup::isHeldAccess(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_GETFD) == 0 && // a second descriptor of it is closed on exec
           (flags & (O_ACCMODE | O_APPEND | O_NOATIME | O_PATH)) == (O_RDONLY | O_APPEND | O_NOATIME);
}
