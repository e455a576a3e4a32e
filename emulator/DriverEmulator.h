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

/// A stand-in for the kernel's filter driver: one library that takes the place of `stat`, `open` and `ioctl`
/// where they concern the driver's device, linked into a program or preloaded. It answers every request as
/// the driver would, on real files: a stub's record is the attribute "user.nkfsdm.stub" of its file, and
/// outlives the process. A malformed request ends the process with a line that says what is wrong.
///
/// A preloaded emulator is told by the environment: QZHSM_EMULATOR_STATE names the file that keeps the watch
/// list, QZHSM_EMULATOR_FAIL="NR:ERRNO:TIMES" is a call of `fail`, and with QZHSM_EMULATOR_TRACE set each
/// request is written to standard error, decoded.
namespace emulator {

/// A request as it arrived.
struct Seen {
    unsigned long command;
    std::vector<unsigned char> record;
};

/// What a test can see and set of the driver, while no request is on its way.
struct Driver {
    bool loaded = true;
    std::map<unsigned, std::pair<int, int>> failures; ///< by request number: errno, how often
    int fileInfo = 0;
    int watchAnswer = 1;
    bool ticksWhenBusy = false; ///< the clock of time(2) goes on by a second with each EAGAIN
    std::vector<Seen> seen;
    int deviceOpens = 0;
    int resubmissions = 0;
    std::set<uint64_t> watched{};
    std::map<uint64_t, std::string> pathsByInode{}; ///< of the files that have an identifier
    std::set<std::pair<dev_t, ino_t>> granted{};    ///< whose data may be written past the driver
};
/// `driver() = {}` loads it afresh, with nothing watched.
QZHSM_API Driver& driver();

/// The next `times` requests of this number fail with `err`, all of them where `times` is negative. Number 0
/// is the opening of the device.
QZHSM_API void fail(unsigned nr, int err, int times = 1);
/// The identifier by which the driver knows a file from now on.
QZHSM_API fsf_fid fidOf(const std::string& path);

/// For measuring: a request is then one real system call and a success, and nothing else is done.
QZHSM_API void answerAtOnce(bool atOnce);

} // namespace emulator
