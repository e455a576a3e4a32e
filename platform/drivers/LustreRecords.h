#pragma once

#include "platform/drivers/LustreAPI.h"

#include <cstddef>
#include <cstdint>

// The Lustre user library's binary interface, as far as archiving goes: records without gaps, in native byte
// order.

static_assert(sizeof(lu_fid) == 16 && offsetof(lu_fid, f_oid) == 8 && offsetof(lu_fid, f_ver) == 12);

constexpr uint32_t kHsmArchive = 10;          ///< the action
constexpr uint64_t kWholeFile = ~uint64_t{0}; ///< the extent's length

struct HsmRequest {
    uint32_t action;
    uint32_t archiveId; ///< 0: the file system's default
    uint64_t flags;
    uint32_t itemCount;
    uint32_t dataLength;
};
/// One for each file, behind the request; the data follows the last.
struct HsmItem {
    lu_fid fid;
    uint64_t offset;
    uint64_t length;
};
static_assert(sizeof(HsmRequest) == 24 && offsetof(HsmRequest, flags) == 8);
static_assert(offsetof(HsmRequest, itemCount) == 16 && offsetof(HsmRequest, dataLength) == 20);
static_assert(sizeof(HsmItem) == 32 && offsetof(HsmItem, offset) == 16);

struct HsmState {
    uint32_t states;
    uint32_t archiveId;
    uint32_t inProgressState;
    uint32_t inProgressAction;
    uint64_t offset;
    uint64_t length;
    char extended[4064]; ///< of no fixed length: room for whatever comes
};
static_assert(sizeof(HsmState) == 4096 && offsetof(HsmState, offset) == 16);
