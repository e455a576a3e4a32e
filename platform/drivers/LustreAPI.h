#pragma once

#include "platform/errors/CWbError.h"

#include <cstdint>
#include <string>

/// Lustre's identifier of a file.
struct lu_fid {
    uint64_t f_seq;
    uint32_t f_oid;
    uint32_t f_ver;
};

/// The part of the Lustre user library that archiving takes, bound when it is needed: the library is that of
/// the machine, and none is needed to build. Safe to call from several threads.
class LustreAPI {
public:
    /// Loads "liblustreapi.so.1", or else "liblustreapi.so", for good, unless that is done already, and reads
    /// how long `HSMArchive` waits: the configuration's "archiveTimeout" in section "Lustre", in seconds,
    /// default 3600. An error with a negative code that names the library or the symbol that is missing.
    static CWbError LoadFunctions();

    /// Asks that the file at `path` (in the locale's encoding) be archived, with `requestData` for the copy
    /// agent, and waits until it is archived and not changed since: only then can it be released. 0, or a
    /// negative errno with a description in `errorText`: -ENOSYS without the library, -ETIMEDOUT.
    static int HSMArchive(const char* path, const char* requestData, std::string& errorText);
};
