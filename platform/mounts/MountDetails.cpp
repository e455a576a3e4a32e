#include "platform/mounts/MountDetails.h"

#include "platform/mounts/QZHSMMntTab.h"

#include <list>
#include <string_view>

int GetMountDetails(std::map<int, mntfs_ent*>& mounts, const char* fsFilter) {
    static thread_local std::list<mntfs_ent> records;
    records.clear();
    mounts.clear();

    const std::string_view wanted = fsFilter;
    const QZHSMMntTab table;
    for (const QZHSMMntTab::Entry& entry : table.entries()) {
        if (wanted != "allFsType" && wanted != entry.fsType)
            continue;
        mntfs_ent& record = records.emplace_back();
        record.mountDir[entry.mountDir.copy(record.mountDir, sizeof record.mountDir - 1)] = '\0';
        mounts.emplace(static_cast<int>(mounts.size()), &record);
    }
    return table.status();
}
