#pragma once

#include "platform/drivers/LustreAPI.h"

#include <cstddef>
#include <cstdio>

/// The path by which a file can be addressed through its FID, under the mount point's hidden directory: the
/// number of characters that it takes, as snprintf(3) has it.
inline int path_lustre(char* buf, int bufSize, const char* mountPoint, const lu_fid* fid) {
    return std::snprintf(buf, static_cast<size_t>(bufSize), "%s/%s/fid/%#llx:0x%x:0x%x", mountPoint,
                         ".lustre", static_cast<unsigned long long>(fid->f_seq), fid->f_oid, fid->f_ver);
}
