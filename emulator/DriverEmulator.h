#pragma once

#include "platform/Export.h"
#include "platform/drivers/FlrDriver.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

/// A stand-in for the kernel's filter driver, for testing whatever calls the driver's back-ends. The library
/// takes the place of stat(2), open(2) and ioctl(2), and of nothing else. It answers what concerns the
/// driver's device, and passes the rest on. Link it into a test, or preload it: see qzhsm-emulator(7).
///
/// Requests act on real files. A stub's record is the attribute "user.nkfsdm.stub" of its file, so it
/// outlives the process. A malformed request ends the process, with a line that says what is wrong with it.
///
/// Threads. Any number may make requests. `fail` and `fidOf` may be called at any time; what `driver` hands
/// out may be looked at and changed only while no thread makes a request.
namespace emulator {

/// The numbers by which the driver knows its requests, and 0 for the opening of its device.
enum Request : unsigned {
    kOpenDevice = 0,
    kStat = 1,
    kStatByFid = 2,
    kCreateStub = 3,
    kDeleteStub = 4,
    kPassThrough = 6,
    kPassThroughByFid = 7,
    kTranWrite = 8,
    kAddWatch = 10,
    kDelWatch = 11,
    kIsWatch = 12,
    kRestoreStub = 16,
    kResubmit = 19
};

/// A request that was made.
struct Seen {
    unsigned request; ///< its number
    int err;          ///< the errno that it failed with, or 0
    std::string text; ///< its name, what it asked for, and the answer, for people to read
};

/// What can be seen and set of the driver.
struct Driver {
    bool loaded = true;  ///< or its device does not exist
    int fileInfo = 0;    ///< the state value that kStat and kStatByFid answer for any file
    int watchAnswer = 1; ///< what kIsWatch answers for a file system that is watched
    bool faulty = false; ///< it answers metadata without an end, and more bytes written than there were
    int success = 0;     ///< what ioctl(2) returns for a success: the driver may answer more than 0
    std::map<unsigned, std::pair<int, int>> failures{}; ///< by request: the errno, and how often; see `fail`
    std::vector<Seen> seen{};                           ///< the first 4096 requests
    std::set<uint64_t> watched{};                       ///< the devices of the file systems that it watches
    std::map<std::pair<dev_t, ino_t>, std::string> identified{}; ///< the files that `fidOf` has identified
    std::set<std::pair<dev_t, ino_t>> granted{}; ///< the files whose data may be written past the driver
};
/// `driver() = {}` loads it afresh, with nothing watched. Stubs stay what they are.
QZHSM_API Driver& driver();

/// The next `times` requests of this number fail with `err`; all of them if `times` is negative.
QZHSM_API void fail(unsigned request, int err, int times = 1);
/// The identifier by which the driver knows the file at this path from now on.
QZHSM_API fsf_fid fidOf(const std::string& path);

/// For benchmarks: each request becomes one system call and a success, and does nothing else.
QZHSM_API void answerAtOnce(bool atOnce);

} // namespace emulator
