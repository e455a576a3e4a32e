#include "bench/Harness.h"
#include "emulator/DriverEmulator.h"
#include "lowlevel/driver/DriverRequests.h"
#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "platform/drivers/QZHSMServiceHelper.h"
#include "platform/files/UniqueFd.h"

#include <clocale>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr const char* kMeta = "versionGuid=2f1c8a4e-6f0b-4d0e-9d0a-3b8f5f7f9b11;location=pool7/000042";

/// An operation beside its bare ioctl with a record that is made already. The driver answers at once, so
/// what is measured is the back-end's own part, mostly the zeroing and filling of the record.
template <class Record, class Ours>
void measureRequest(benchmark::State& state, const char* name, const DriverRequest<Record>& request,
                    Ours ours, const char* fileName = "driver") {
    emulator::driver() = {};
    QZHSMLowLevelQZFS driver;
    const std::string path = scratchPath(fileName);
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT, 0600));
    const UniqueFd device(::open(kDriverDevice, O_RDWR));
    emulator::answerAtOnce(true);
    if (!device.isOpen() || driver.openFileTrans(path.c_str(), O_RDWR, 0600) < 0)
        return giveUp(state, name + (": " + driver.m_errorText));
    Record record{};
    measure(
        state, {.name = name, .batch = 64, .syscalls = 1, .allocs = 0, .overheadNs = 1000}, [] {},
        [&](int) { return ours(driver, path.c_str()) == 0; },
        [&](int) { return ::ioctl(device.get(), request.command, &record) == 0; });
    driver.closeFileTrans();
    emulator::answerAtOnce(false);
}

void driverIsStub(benchmark::State& state) {
    measureRequest(state, "driver/isStub", QZHSM_STAT,
                   [](QZHSMLowLevelQZFS& driver, const char* path) { return driver.isStub(path); });
}

void driverIsStubUtf8(benchmark::State& state) {
    const std::string before = std::setlocale(LC_CTYPE, nullptr);
    std::setlocale(LC_CTYPE, "C.UTF-8");
    measureRequest(
        state, "driver/isStub/utf8", QZHSM_STAT,
        [](QZHSMLowLevelQZFS& driver, const char* path) { return driver.isStub(path); },
        "\xc3\xbcml\xc3\xa4ut");
    std::setlocale(LC_CTYPE, before.c_str());
}

void driverGetFileInfo(benchmark::State& state) {
    measureRequest(state, "driver/getFileInfo", QZHSM_STAT, [](QZHSMLowLevelQZFS& driver, const char* path) {
        bool isStub = false;
        int info = 0;
        return driver.getFileInfo(path, &isStub, &info);
    });
}

void driverStubFile(benchmark::State& state) {
    measureRequest(
        state, "driver/stubFile", QZHSM_CREATE_STUB,
        [](QZHSMLowLevelQZFS& driver, const char* path) { return driver.stubFile(path, kMeta, 0, 0); });
}

void driverRestoreDone(benchmark::State& state) {
    const std::list<long long> ids;
    measureRequest(
        state, "driver/restoreDone", QZHSM_DELETE_STUB,
        [&](QZHSMLowLevelQZFS& driver, const char* path) { return driver.restoreDone(path, true, ids); });
}

void driverIsDMRFS(benchmark::State& state) {
    measureRequest(state, "driver/isDMRFS", QZHSM_IS_WATCH_FS,
                   [](QZHSMLowLevelQZFS& driver, const char* path) { return driver.isDMRFS(path); });
}

void driverWriteFileTrans(benchmark::State& state) {
    measureRequest(
        state, "driver/writeFileTrans", QZHSM_TRAN_WRITE,
        [](QZHSMLowLevelQZFS& driver, const char* path) { return driver.writeFileTrans(path, 1, 0); });
}

BENCHMARK(driverIsStub)->UseManualTime();
BENCHMARK(driverIsStubUtf8)->UseManualTime();
BENCHMARK(driverGetFileInfo)->UseManualTime();
BENCHMARK(driverStubFile)->UseManualTime();
BENCHMARK(driverRestoreDone)->UseManualTime();
BENCHMARK(driverIsDMRFS)->UseManualTime();
BENCHMARK(driverWriteFileTrans)->UseManualTime();

} // namespace
