#pragma once

#include <climits>
#include <map>

struct mntfs_ent {
    char mountDir[PATH_MAX];
};

/// Lists the mounted file systems under ascending keys, in mount order. `fsFilter` is "allFsType", or the
/// one file-system type to list. 0, or the errno that reading the mount table met, with nothing listed.
/// The records stay this function's and are valid until the same thread's next call.
int GetMountDetails(std::map<int, mntfs_ent*>& mounts, const char* fsFilter);
