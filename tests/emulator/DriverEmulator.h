#pragma once

#include "platform/Export.h"
#include "platform/drivers/FlrDriver.h"

#include <string>
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

/// As freshly loaded, with nothing watched.
QZHSM_API void reset();
QZHSM_API void setLoaded(bool loaded);
/// The next `times` requests of this number fail with `err`, all of them where `times` is negative. Number 0
/// is the opening of the device.
QZHSM_API void fail(unsigned nr, int err, int times = 1);
/// Whether the clock of time(2) goes on by a second with each request that the driver is too busy for.
QZHSM_API void tickWhenBusy(bool ticks);
QZHSM_API void setFileInfo(int value);
QZHSM_API void setWatchAnswer(int value);
/// The identifier by which the driver knows a file from now on.
QZHSM_API fsf_fid fidOf(const std::string& path);

/// A request as it arrived.
struct Seen {
    unsigned long command;
    std::vector<unsigned char> record;
};
/// The requests since `forget` or `reset`.
QZHSM_API std::vector<Seen> seen();
QZHSM_API void forget();
QZHSM_API int deviceOpens();
QZHSM_API int resubmissions();

/// For measuring: a request is then one real system call and a success, and nothing else is done.
QZHSM_API void answerAtOnce(bool atOnce);

} // namespace emulator
