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

/// What `HSMStates` tells of a file.
constexpr uint32_t kHsmDirty = 2;    ///< changed since it was archived
constexpr uint32_t kHsmArchived = 8; ///< there is a copy in the archive
constexpr uint32_t kHsmLost = 0x40;  ///< that copy is lost

/// The part of the Lustre user library that archiving takes, bound when it is needed: the library is that of
/// the machine, and none is needed to build. Safe to call from several threads. Paths are in the locale's
/// encoding. Failures are a negative errno, with a description in `errorText`; -ENOSYS without the library.
class LustreAPI {
public:
    /// Loads "liblustreapi.so.1", or else "liblustreapi.so", for good, unless that is done already. An error
    /// with a negative code that names the library or the symbol that is missing.
    static CWbError LoadFunctions();

    /// Asks that the file be archived, with `requestData` for the copy agent, and does not wait for it: 0.
    static int HSMArchive(const char* path, const char* requestData, std::string& errorText);
    /// Stores the file's HSM states, `kHsmArchived` among them: 0.
    static int HSMStates(const char* path, uint32_t& states, std::string& errorText);
};
