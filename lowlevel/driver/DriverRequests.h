#pragma once

#include "lowlevel/QZHSMLowLevel.h"
#include "platform/drivers/FlrDriver.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/ioctl.h>

// What the kernel driver is asked through its administrative device: a record and a command for each request.
// All of it is the driver's binary interface. A record goes out zero-filled but for what is set; integers
// have the machine's byte order; fields marked "out" are the driver's.

/// A path in the locale's encoding or a stub's metadata, NUL-terminated.
using DriverText = char[2048];

/// Sets a field that is zero so far; a text that is too long is cut.
void setText(DriverText& field, const char* text);
/// The same with a UTF-8 path.
void setPath(DriverText& field, const char* path);

struct StatRecord {
    DriverText path;
    int32_t isStub;   ///< out: not 0 for a stub
    int32_t fileInfo; ///< out: the driver's state value
    DriverText meta;  ///< out
};

struct StatByFidRecord {
    uint64_t dev;
    fsf_fid fid;
    int32_t isStub;   ///< out
    int32_t fileInfo; ///< out
    DriverText meta;  ///< out
};

struct CreateStubRecord {
    int64_t refTime; ///< the modification time, in seconds, that the file had when it was archived
    int64_t size;    ///< the file's logical size
    DriverText path;
    DriverText meta;
};

struct DeleteStubRecord {
    DriverText path;
    uint8_t failed; ///< 1: the recall failed and the stub stays
};

struct PassThroughRecord {
    DriverText path;
    int32_t fd; ///< of the nameless file that will carry the access
};

struct PassThroughByFidRecord {
    fsf_fid fid;
    int32_t fd; ///< open on the stub
    int32_t zero;
};

/// The one record that is not zero-filled: its padding goes out as it is.
struct TranWriteRecord {
    int32_t fd;
    const void* data;
    int32_t length;
    int32_t written; ///< out
};

struct AddWatchRecord {
    DriverText path;
    int32_t mountFlag; ///< the mount-table entry's flag byte
};

struct DelWatchRecord {
    DriverText path; ///< or
    uint64_t dev;    ///< this; the other is zero
};

struct IsWatchRecord {
    int32_t answer;  ///< out: not 0 where the file system is watched
    DriverText path; ///< or
    int32_t zero;
    uint64_t dev; ///< this; the other is zero
};

struct RestoreStubRecord {
    DriverText path;
    DriverText meta;
    int64_t size; ///< the file's logical size
};

struct ResubmitRecord {
    int32_t zero;
};

/// The last-error code that an errno of the driver stands for; -1 for those that are not listed.
struct DriverErrno {
    int err;
    int code;
};

/// The driver's own errno value for a file that is not a stub.
constexpr int kDriverNotAStub = 200;

constexpr DriverErrno kCommonErrnos[] = {{ENOENT, QZHSM_NOT_FOUND}};
constexpr DriverErrno kCreateErrnos[] = {{EALREADY, QZHSM_ALREADY},
                                         {EBUSY, QZHSM_BUSY},
                                         {ENOENT, QZHSM_NOT_FOUND},
                                         {EINVAL, QZHSM_INVALID},
                                         {E2BIG, QZHSM_TOO_BIG}};
constexpr DriverErrno kRestoreErrnos[] = {{ENOENT, QZHSM_NOT_FOUND}, {EINVAL, QZHSM_INVALID}};
constexpr DriverErrno kPassThroughErrnos[] = {{ENOENT, QZHSM_NOT_FOUND}, {kDriverNotAStub, QZHSM_NOT_A_STUB}};

/// What the driver can be asked.
struct DriverOperation {
    unsigned long command;
    const char* name;
    std::span<const DriverErrno> errnos;
};

/// An operation that goes with records of one type.
template <class Record>
struct DriverRequest : DriverOperation {
    /// Asks the driver behind the descriptor of its device: 0, or errno.
    int send(int device, Record& record) const { return ::ioctl(device, command, &record) < 0 ? errno : 0; }
};

constexpr DriverRequest<StatRecord> QZHSM_STAT{{_IOWR('C', 1, StatRecord), "QZHSM_STAT", kCommonErrnos}};
constexpr DriverRequest<StatByFidRecord> QZHSM_STAT_BY_FID{
    {_IOWR('C', 2, StatByFidRecord), "QZHSM_STAT_BY_FID", kCommonErrnos}};
constexpr DriverRequest<CreateStubRecord> QZHSM_CREATE_STUB{
    {_IOW('C', 3, CreateStubRecord), "QZHSM_CREATE_STUB", kCreateErrnos}};
constexpr DriverRequest<DeleteStubRecord> QZHSM_DELETE_STUB{
    {_IOW('C', 4, DeleteStubRecord), "QZHSM_DELETE_STUB", kCommonErrnos}};
constexpr DriverRequest<PassThroughRecord> QZHSM_PASS_THROUGH{
    {_IOW('C', 6, PassThroughRecord), "QZHSM_PASS_THROUGH", kPassThroughErrnos}};
constexpr DriverRequest<PassThroughByFidRecord> QZHSM_PASS_THROUGH_BY_FID{
    {_IOW('C', 7, PassThroughByFidRecord), "QZHSM_PASS_THROUGH_BY_FID", kPassThroughErrnos}};
constexpr DriverRequest<TranWriteRecord> QZHSM_TRAN_WRITE{
    {_IOWR('C', 8, TranWriteRecord), "QZHSM_TRAN_WRITE", kCommonErrnos}};
constexpr DriverRequest<AddWatchRecord> QZHSM_ADD_WATCH_FS{
    {_IOW('C', 10, AddWatchRecord), "QZHSM_ADD_WATCH_FS", kCommonErrnos}};
constexpr DriverRequest<DelWatchRecord> QZHSM_DEL_WATCH_FS{
    {_IOW('C', 11, DelWatchRecord), "QZHSM_DEL_WATCH_FS", kCommonErrnos}};
constexpr DriverRequest<IsWatchRecord> QZHSM_IS_WATCH_FS{
    {_IOWR('C', 12, IsWatchRecord), "QZHSM_IS_WATCH_FS", kCommonErrnos}};
constexpr DriverRequest<RestoreStubRecord> QZHSM_RESTORE_STUB{
    {_IOW('C', 16, RestoreStubRecord), "QZHSM_RESTORE_STUB", kRestoreErrnos}};
constexpr DriverRequest<ResubmitRecord> QZHSM_RESUBMIT_PENDING_RECALLS{
    {_IOW('C', 19, ResubmitRecord), "QZHSM_RESUBMIT_PENDING_RECALLS", {}}};

static_assert(sizeof(StatRecord) == 4104 && QZHSM_STAT.command == 0xD0084301);
static_assert(offsetof(StatRecord, isStub) == 2048 && offsetof(StatRecord, fileInfo) == 2052);
static_assert(offsetof(StatRecord, meta) == 2056);
static_assert(sizeof(StatByFidRecord) == 2088 && QZHSM_STAT_BY_FID.command == 0xC8284302);
static_assert(offsetof(StatByFidRecord, fid) == 8 && offsetof(StatByFidRecord, isStub) == 32);
static_assert(offsetof(StatByFidRecord, fileInfo) == 36 && offsetof(StatByFidRecord, meta) == 40);
static_assert(sizeof(CreateStubRecord) == 4112 && QZHSM_CREATE_STUB.command == 0x50104303);
static_assert(offsetof(CreateStubRecord, size) == 8 && offsetof(CreateStubRecord, path) == 16);
static_assert(offsetof(CreateStubRecord, meta) == 2064);
static_assert(sizeof(DeleteStubRecord) == 2049 && QZHSM_DELETE_STUB.command == 0x48014304);
static_assert(offsetof(DeleteStubRecord, failed) == 2048);
static_assert(sizeof(PassThroughRecord) == 2052 && QZHSM_PASS_THROUGH.command == 0x48044306);
static_assert(offsetof(PassThroughRecord, fd) == 2048);
static_assert(sizeof(PassThroughByFidRecord) == 32 && QZHSM_PASS_THROUGH_BY_FID.command == 0x40204307);
static_assert(offsetof(PassThroughByFidRecord, fd) == 24 && offsetof(PassThroughByFidRecord, zero) == 28);
static_assert(sizeof(TranWriteRecord) == 24 && QZHSM_TRAN_WRITE.command == 0xC0184308);
static_assert(offsetof(TranWriteRecord, data) == 8 && offsetof(TranWriteRecord, length) == 16);
static_assert(offsetof(TranWriteRecord, written) == 20);
static_assert(sizeof(AddWatchRecord) == 2052 && QZHSM_ADD_WATCH_FS.command == 0x4804430A);
static_assert(offsetof(AddWatchRecord, mountFlag) == 2048);
static_assert(sizeof(DelWatchRecord) == 2056 && QZHSM_DEL_WATCH_FS.command == 0x4808430B);
static_assert(offsetof(DelWatchRecord, dev) == 2048);
static_assert(sizeof(IsWatchRecord) == 2064 && QZHSM_IS_WATCH_FS.command == 0xC810430C);
static_assert(offsetof(IsWatchRecord, path) == 4 && offsetof(IsWatchRecord, zero) == 2052);
static_assert(offsetof(IsWatchRecord, dev) == 2056);
static_assert(sizeof(RestoreStubRecord) == 4104 && QZHSM_RESTORE_STUB.command == 0x50084310);
static_assert(offsetof(RestoreStubRecord, meta) == 2048 && offsetof(RestoreStubRecord, size) == 4096);
static_assert(sizeof(ResubmitRecord) == 4 && QZHSM_RESUBMIT_PENDING_RECALLS.command == 0x40044313);
