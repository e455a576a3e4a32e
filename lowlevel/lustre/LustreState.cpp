#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "platform/drivers/LustreAPI.h"
#include "platform/errors/ErrorText.h"
#include "platform/files/utf_files.h"
#include "platform/logging/ProcessLog.h"
#include "platform/process/NkProcess.h"

#include <cerrno>
#include <sys/xattr.h>

namespace {

constexpr int kStubTextLimit = 65536;

} // namespace

QZHSMLowLevelLustre::QZHSMLowLevelLustre() {
    const CWbError error = LustreAPI::LoadFunctions();
    if (!error.IsError())
        return;
    if (CLogWriterInterface* log = processLog(-1))
        log->Write(-1, "QZHSMLowLevelLustre::QZHSMLowLevelLustre()", 35, 0, 0,
                   "LoadFunctions failed, error=%s", error.AsString().c_str());
}

QZHSMLowLevelLustre::~QZHSMLowLevelLustre() = default;

int QZHSMLowLevelLustre::runOn(const char* command, const char* path, std::string& out, std::string& err) {
    const std::string line = std::string(command) + path;
    const int result = NkProcess::system(line.c_str(), &out, &err, 0, true);
    if (result < 0)
        fail(QZHSM_FAILURE, line + " failed, error=" + err);
    return result;
}

int QZHSMLowLevelLustre::getHSMState(const char* path, std::string& state) {
    constexpr const char* kTag = "int QZHSMLowLevelLustre::getHSMState(const char*, std::string&)";
    clearError();
    CLogWriterInterface* log = processLog(3);
    if (log)
        log->Write(3, kTag, 227, 0, 0, "%s", (std::string("lfs hsm_state ") + path).c_str());
    std::string out;
    std::string err;
    if (runOn("lfs hsm_state ", path, out, err) < 0)
        return -1;
    if (log)
        log->Write(3, kTag, 234, 0, 0, "%s sOut=%s, sErr=%s", path, out.c_str(), err.c_str());
    state = std::move(out);
    return 0;
}

int QZHSMLowLevelLustre::isStub(const char* path) {
    m_errorCode = QZHSM_NOT_A_STUB;
    m_errorText.assign(path).append(" is not a stub");
    char text[kStubTextLimit + 1] = {};
    if (::lgetxattr(LocalPath(path).c_str(), "user.TSTUB", text, kStubTextLimit) < 0) {
        const int err = errno;
        CLogWriterInterface* log = err == ENODATA ? nullptr : processLog(-1);
        if (log)
            log->Write(-1, "virtual int QZHSMLowLevelLustre::isStub(const char*)", 252, 0, 0,
                       "lgetxattr(%s) failed, error=%s", path, errnoReason(err).c_str());
        return 0;
    }
    std::string state;
    if (getHSMState(path, state) < 0)
        return 0;
    return state.find("released") != std::string::npos ? 1 : 0;
}

int QZHSMLowLevelLustre::getFileInfo(const char* path, bool* isStub, int* state) {
    clearError();
    *isStub = this->isStub(path) != 0;
    *state = QZHSM_FILE_STATE_PLAIN;
    return 0;
}

int QZHSMLowLevelLustre::statFile(const char* path, struct stat* st) {
    clearError();
    return statPath(path, st);
}

int QZHSMLowLevelLustre::startWatchingDirTree(const char*) {
    return succeed();
}

int QZHSMLowLevelLustre::stopWatchingDirTree(const char*) {
    return succeed();
}

int QZHSMLowLevelLustre::stopWatchingDevice(unsigned long) {
    return succeed();
}

int QZHSMLowLevelLustre::isDirBeingWatched(const char*) {
    return succeed();
}

int QZHSMLowLevelLustre::isDMRFS(const char*) {
    clearError();
    return 1;
}

int QZHSMLowLevelLustre::restoreDone(const char*, bool success, const std::list<long long>&) {
    clearError();
    return success ? 1 : 0;
}
