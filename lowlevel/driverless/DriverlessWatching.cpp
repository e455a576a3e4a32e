#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "lowlevel/internal/LastError.h"
#include "platform/config/NKPI_Focus.h"
#include "platform/files/NkACL.h"
#include "platform/files/utf_files.h"
#include "platform/mounts/MountDetails.h"
#include "platform/mounts/QZHSMMigratedDirTrees.h"
#include "platform/mounts/skipFS.h"

int QZHSMLowLevelDriverless::startWatchingDirTree(const char*) {
    return succeed(*this);
}

int QZHSMLowLevelDriverless::stopWatchingDirTree(const char*) {
    return succeed(*this);
}

int QZHSMLowLevelDriverless::stopWatchingDevice(unsigned long) {
    return succeed(*this);
}

int QZHSMLowLevelDriverless::isDirBeingWatched(const char* dirPath) {
    clearError(*this);
    std::string dir = dirPath;
    const QZHSMMigratedDirTrees trees(true, NKPI_Focus::getFocusClientName(true));
    return trees.wasDirMigrated(dirPath, &dir) != 0 ? 1 : 0;
}

int QZHSMLowLevelDriverless::isDMRFS(const char* path) {
    clearError(*this);
    if (m_archiveAndDelete || m_aclHelper->supportsXattr(path) || m_archiveNonExtData)
        return 1;
    bool skip = false;
    // No failure, so the code stays clear; the text tells why. Its wording and its last blank are known to
    // callers.
    explain(*this, "Extended Attribute is not supported in [ " +
                       skipFS::getInstance().GetFsType(path, skip, nullptr) +
                       " ] or extended attributed is disabled in mount option. ");
    return 0;
}

bool QZHSMLowLevelDriverless::isDMRFSforInPlaceRestore(const char* path) {
    // One answer for the whole process, in which the mode of the object has no part: callers rely on it.
    static std::string prevDirName;
    static bool prevIsDMRFS = false;
    if (prevDirName == path)
        return prevIsDMRFS;

    prevIsDMRFS = isDMRFS(path) != 0;
    prevDirName = path;
    if (!prevIsDMRFS) {
        struct stat st {};
        if (lstat_utf(path, &st) == 0)
            m_nonXattrDevices[st.st_dev] = true;
        else
            prevDirName = "N/A"; // so that the next call asks again
    }
    return prevIsDMRFS;
}

int QZHSMLowLevelDriverless::populateMountPointDetails() {
    std::map<int, mntfs_ent*> mounts;
    int status = GetMountDetails(mounts, "allFsType");
    for (const auto& [key, mount] : mounts) {
        struct stat st {};
        status = lstat_utf(mount->mountDir, &st);
        if (status == 0)
            m_mountPointsByDevice[st.st_dev] = mount->mountDir;
    }
    return status;
}

void QZHSMLowLevelDriverless::getNonXATTRmountPoints(std::string& out) {
    if (m_mountPointsByDevice.empty())
        populateMountPointDetails();
    for (const auto& [device, lacksXattr] : m_nonXattrDevices)
        if (lacksXattr) // a device that is not mounted any more has an empty name, as callers expect
            out += m_mountPointsByDevice[device] + " ";
}
