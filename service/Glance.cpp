#include "service/Glance.h"

#include "platform/stub/StubAttributes.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

/// A path to an entry of an open directory, for calls that know no such directories.
class EntryPath {
public:
    EntryPath(int directory, const char* name) {
        std::snprintf(m_path, sizeof m_path, "/proc/self/fd/%d/%s", directory, name);
    }
    const char* c_str() const { return m_path; }

private:
    char m_path[NAME_MAX + 32];
};

/// The names of an entry's attributes, as llistxattr(2) has them.
ssize_t listAttributes(int directory, const char* name, char* list, size_t size) {
    constexpr long kListXattrAt = 465; // since Linux 6.13
    static std::atomic<bool> isKnown = true;
    if (isKnown) {
        const ssize_t length = ::syscall(kListXattrAt, directory, name, AT_SYMLINK_NOFOLLOW, list, size);
        if (length >= 0 || (errno != ENOSYS && errno != EPERM))
            return length;
        isKnown = false;
    }
    return ::llistxattr(EntryPath(directory, name).c_str(), list, size);
}

/// Whether attributes can be read, which the list of their names does not tell.
bool mayBeRead(const struct stat& st) {
    constexpr mode_t kAll = S_IRUSR | S_IRGRP | S_IROTH;
    static const uid_t user = ::geteuid();
    return user == 0 || (st.st_mode & kAll) == kAll || (st.st_uid == user && (st.st_mode & S_IRUSR) != 0);
}

} // namespace

EntryAttributes::EntryAttributes(int directory, const char* name)
    : m_length(listAttributes(directory, name, m_list, sizeof m_list)) {}

bool EntryAttributes::contain(std::string_view attribute) const {
    std::string_view rest(m_list, static_cast<size_t>(m_length));
    while (!rest.empty()) {
        const std::string_view found = rest.substr(0, rest.find('\0'));
        if (found == attribute)
            return true;
        rest.remove_prefix(std::min(found.size() + 1, rest.size()));
    }
    return false;
}

std::optional<struct stat> statReadable(int directory, const char* name) {
    std::optional<struct stat> st(std::in_place);
    if (::fstatat(directory, name, &*st, AT_SYMLINK_NOFOLLOW) < 0 || !S_ISREG(st->st_mode) || !mayBeRead(*st))
        return {};
    return st;
}

bool hasUserAttributes(int directory, const char* name) {
    return ::lgetxattr(EntryPath(directory, name).c_str(), kProbeAttribute, nullptr, 0) >= 0 ||
           errno == ENODATA;
}
