#include "platform/mounts/skipFS.h"

#include "platform/mounts/QZHSMMntTab.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr std::string_view kMadeUp[] = {
    "autofs",   "binfmt_misc", "bpf",    "cgroup", "cgroup2", "configfs",   "debugfs", "devpts",  "devtmpfs",
    "efivarfs", "fusectl",     "mqueue", "proc",   "pstore",  "securityfs", "sysfs",   "tracefs",
};

} // namespace

skipFS& skipFS::getInstance() {
    static skipFS instance;
    return instance;
}

std::string skipFS::GetFsType(const char* path, bool& skip, const struct stat*) const {
    const QZHSMMntTab table;
    const QZHSMMntTab::Entry* entry = table.find(path);
    std::string type = entry ? entry->fsType : "unknown";
    skip = std::find(std::begin(kMadeUp), std::end(kMadeUp), type) != std::end(kMadeUp);
    return type;
}
