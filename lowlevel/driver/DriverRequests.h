#pragma once

#include "lowlevel/QZHSMLowLevel.h"
#include "platform/drivers/FlrDriver.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <sys/ioctl.h>

// What the kernel driver is asked through its administrative device. Each request stands here with all that
// belongs to it: its record, its command, what a refusal is called, and what the driver's errnos mean.
//
// Records and commands are the driver's binary interface. A record goes out zero-filled but for what is set;
// integers have the machine's byte order; fields marked "out" are the driver's.

/// A path in the locale's encoding or a stub's metadata, NUL-terminated.
using DriverText = char[2048];

/// Sets a field that is zero so far; a text that is too long is cut.
void setText(DriverText& field, const char* text);
/// The same with a UTF-8 path.
void setPath(DriverText& field, const char* path);

/// The last-error code that an errno of the driver stands for; -1 for an errno that is not listed.
/// QZHSM_SUCCESS stands for a refusal that is an answer and no failure.
struct DriverErrno {
    int err;
    int code;
};
inline constexpr DriverErrno kCommonErrnos[] = {{ENOENT, QZHSM_NOT_FOUND}};

/// What the driver can be asked.
struct DriverOperation {
    unsigned long command;
    const char* name;
    /// What failed, for the error text; "%s" stands for the path.
    const char* failure;
    std::span<const DriverErrno> errnos;
};

/// An operation that goes with records of one type.
template <class Record>
struct DriverRequest : DriverOperation {
    /// Asks the driver behind the descriptor of its device: 0, or errno.
    int send(int device, Record& record) const { return ::ioctl(device, command, &record) < 0 ? errno : 0; }
};

/// Fails with the operation's code for the driver's `err`, and its text. 1, without an error, if the code is
/// QZHSM_SUCCESS.
int failRequest(QZHSMLowLevel& backEnd, const DriverOperation& operation, std::string_view path, int err);

/// A record for a path, all else zero.
template <class Record>
Record recordFor(const char* path) {
    Record record{};
    setPath(record.path, path);
    return record;
}

// --- Watching ---

struct AddWatchRecord {
    DriverText path;
    int32_t mountFlag; ///< the mount-table entry's flag byte
};
inline constexpr DriverRequest<AddWatchRecord> QZHSM_ADD_WATCH_FS{
    {_IOW('C', 10, AddWatchRecord), "QZHSM_ADD_WATCH_FS", "QZHSM_ADD_WATCH_FS(%s) failed", kCommonErrnos}};
static_assert(sizeof(AddWatchRecord) == 2052 && QZHSM_ADD_WATCH_FS.command == 0x4804430A);
static_assert(offsetof(AddWatchRecord, mountFlag) == 2048);

struct DelWatchRecord {
    DriverText path; ///< or
    uint64_t dev;    ///< this; the other is zero
};
inline constexpr DriverRequest<DelWatchRecord> QZHSM_DEL_WATCH_FS{
    {_IOW('C', 11, DelWatchRecord), "QZHSM_DEL_WATCH_FS", "QZHSM_DEL_WATCH_FS(%s) failed", kCommonErrnos}};
/// The same by device. A device that is not there is no missing file, and has no code of its own.
inline constexpr DriverRequest<DelWatchRecord> QZHSM_DEL_WATCH_DEVICE{
    {QZHSM_DEL_WATCH_FS.command, QZHSM_DEL_WATCH_FS.name, QZHSM_DEL_WATCH_FS.failure, {}}};
static_assert(sizeof(DelWatchRecord) == 2056 && QZHSM_DEL_WATCH_FS.command == 0x4808430B);
static_assert(offsetof(DelWatchRecord, dev) == 2048);

struct IsWatchRecord {
    int32_t answer;  ///< out: not 0 if the file system is watched
    DriverText path; ///< or
    int32_t zero;
    uint64_t dev; ///< this; the other is zero
};
inline constexpr DriverRequest<IsWatchRecord> QZHSM_IS_WATCH_FS{
    {_IOWR('C', 12, IsWatchRecord), "QZHSM_IS_WATCH_FS", "QZHSM_IS_WATCH_FS(%s) failed", kCommonErrnos}};
static_assert(sizeof(IsWatchRecord) == 2064 && QZHSM_IS_WATCH_FS.command == 0xC810430C);
static_assert(offsetof(IsWatchRecord, path) == 4 && offsetof(IsWatchRecord, zero) == 2052);
static_assert(offsetof(IsWatchRecord, dev) == 2056);

struct ResubmitRecord {
    int32_t zero;
};
inline constexpr DriverRequest<ResubmitRecord> QZHSM_RESUBMIT_PENDING_RECALLS{
    {_IOW('C', 19, ResubmitRecord),
     "QZHSM_RESUBMIT_PENDING_RECALLS",
     "QZHSM_RESUBMIT_PENDING_RECALLS() failed",
     {}}};
static_assert(sizeof(ResubmitRecord) == 4 && QZHSM_RESUBMIT_PENDING_RECALLS.command == 0x40044313);

// --- The life of a stub ---

struct StatRecord {
    DriverText path;
    int32_t isStub;   ///< out: not 0 for a stub
    int32_t fileInfo; ///< out: the driver's state value
    DriverText meta;  ///< out
};
inline constexpr DriverRequest<StatRecord> QZHSM_STAT{
    {_IOWR('C', 1, StatRecord), "QZHSM_STAT", "QZHSM_STAT(%s) failed", kCommonErrnos}};
/// The same, asked for no more than whether the file is a stub: one that is not the driver's is none.
inline constexpr DriverErrno kIsStubErrnos[] = {{ENOENT, QZHSM_NOT_FOUND}, {EINVAL, QZHSM_SUCCESS}};
inline constexpr DriverRequest<StatRecord> QZHSM_STAT_IS_STUB{
    {QZHSM_STAT.command, QZHSM_STAT.name, QZHSM_STAT.failure, kIsStubErrnos}};
static_assert(sizeof(StatRecord) == 4104 && QZHSM_STAT.command == 0xD0084301);
static_assert(offsetof(StatRecord, isStub) == 2048 && offsetof(StatRecord, fileInfo) == 2052);
static_assert(offsetof(StatRecord, meta) == 2056);

struct StatByFidRecord {
    uint64_t dev;
    fsf_fid fid;
    int32_t isStub;   ///< out
    int32_t fileInfo; ///< out
    DriverText meta;  ///< out
};
inline constexpr DriverRequest<StatByFidRecord> QZHSM_STAT_BY_FID{
    {_IOWR('C', 2, StatByFidRecord), "QZHSM_STAT_BY_FID", "QZHSM_STAT_BY_FID() failed", kCommonErrnos}};
/// The same, asked for stub data. Programs know its failure without the parentheses.
inline constexpr DriverRequest<StatByFidRecord> QZHSM_STAT_DATA_BY_FID{
    {QZHSM_STAT_BY_FID.command, QZHSM_STAT_BY_FID.name, "QZHSM_STAT_BY_FID failed", kCommonErrnos}};
static_assert(sizeof(StatByFidRecord) == 2088 && QZHSM_STAT_BY_FID.command == 0xC8284302);
static_assert(offsetof(StatByFidRecord, fid) == 8 && offsetof(StatByFidRecord, isStub) == 32);
static_assert(offsetof(StatByFidRecord, fileInfo) == 36 && offsetof(StatByFidRecord, meta) == 40);

struct CreateStubRecord {
    int64_t refTime; ///< the modification time, in seconds, that the file had when it was archived
    int64_t size;    ///< the file's logical size
    DriverText path;
    DriverText meta;
};
inline constexpr DriverErrno kCreateErrnos[] = {{EALREADY, QZHSM_ALREADY},
                                                {EBUSY, QZHSM_BUSY},
                                                {ENOENT, QZHSM_NOT_FOUND},
                                                {EINVAL, QZHSM_INVALID},
                                                {E2BIG, QZHSM_TOO_BIG}};
inline constexpr DriverRequest<CreateStubRecord> QZHSM_CREATE_STUB{
    {_IOW('C', 3, CreateStubRecord), "QZHSM_CREATE_STUB", "QZHSM_CREATE_STUB(%s) failed", kCreateErrnos}};
static_assert(sizeof(CreateStubRecord) == 4112 && QZHSM_CREATE_STUB.command == 0x50104303);
static_assert(offsetof(CreateStubRecord, size) == 8 && offsetof(CreateStubRecord, path) == 16);
static_assert(offsetof(CreateStubRecord, meta) == 2064);

struct RestoreStubRecord {
    DriverText path;
    DriverText meta;
    int64_t size; ///< the file's logical size
};
inline constexpr DriverErrno kRestoreErrnos[] = {{ENOENT, QZHSM_NOT_FOUND}, {EINVAL, QZHSM_INVALID}};
/// Programs know its failure by the call's name, without the path.
inline constexpr DriverRequest<RestoreStubRecord> QZHSM_RESTORE_STUB{
    {_IOW('C', 16, RestoreStubRecord), "QZHSM_RESTORE_STUB", "ioctl(QZHSM_RESTORE_STUB) failed",
     kRestoreErrnos}};
static_assert(sizeof(RestoreStubRecord) == 4104 && QZHSM_RESTORE_STUB.command == 0x50084310);
static_assert(offsetof(RestoreStubRecord, meta) == 2048 && offsetof(RestoreStubRecord, size) == 4096);

struct DeleteStubRecord {
    DriverText path;
    uint8_t failed; ///< 1: the recall failed and the stub stays
};
inline constexpr DriverRequest<DeleteStubRecord> QZHSM_DELETE_STUB{
    {_IOW('C', 4, DeleteStubRecord), "QZHSM_DELETE_STUB", "QZHSM_DELETE_STUB(%s) failed", kCommonErrnos}};
static_assert(sizeof(DeleteStubRecord) == 2049 && QZHSM_DELETE_STUB.command == 0x48014304);
static_assert(offsetof(DeleteStubRecord, failed) == 2048);

// --- Transparent I/O ---

/// The driver's own errno value for a file that is not a stub.
constexpr int kDriverNotAStub = 200;
inline constexpr DriverErrno kPassThroughErrnos[] = {{ENOENT, QZHSM_NOT_FOUND},
                                                     {kDriverNotAStub, QZHSM_NOT_A_STUB}};

struct PassThroughRecord {
    DriverText path;
    int32_t fd; ///< of the nameless file that will carry the access
};
inline constexpr DriverRequest<PassThroughRecord> QZHSM_PASS_THROUGH{
    {_IOW('C', 6, PassThroughRecord), "QZHSM_PASS_THROUGH", "Failed to open file %s in transparent mode",
     kPassThroughErrnos}};
static_assert(sizeof(PassThroughRecord) == 2052 && QZHSM_PASS_THROUGH.command == 0x48044306);
static_assert(offsetof(PassThroughRecord, fd) == 2048);

struct PassThroughByFidRecord {
    fsf_fid fid;
    int32_t fd; ///< open on the stub
    int32_t zero;
};
inline constexpr DriverRequest<PassThroughByFidRecord> QZHSM_PASS_THROUGH_BY_FID{
    {_IOW('C', 7, PassThroughByFidRecord), "QZHSM_PASS_THROUGH_BY_FID",
     "Failed to open file in transparent mode", kPassThroughErrnos}};
static_assert(sizeof(PassThroughByFidRecord) == 32 && QZHSM_PASS_THROUGH_BY_FID.command == 0x40204307);
static_assert(offsetof(PassThroughByFidRecord, fd) == 24 && offsetof(PassThroughByFidRecord, zero) == 28);

/// The one record that is not zero-filled: its padding goes out as it is.
struct TranWriteRecord {
    int32_t fd;
    const void* data;
    int32_t length;
    int32_t written; ///< out
};
inline constexpr DriverRequest<TranWriteRecord> QZHSM_TRAN_WRITE{
    {_IOWR('C', 8, TranWriteRecord), "QZHSM_TRAN_WRITE", "QZHSM_TRAN_WRITE failed", kCommonErrnos}};
static_assert(sizeof(TranWriteRecord) == 24 && QZHSM_TRAN_WRITE.command == 0xC0184308);
static_assert(offsetof(TranWriteRecord, data) == 8 && offsetof(TranWriteRecord, length) == 16);
static_assert(offsetof(TranWriteRecord, written) == 20);
