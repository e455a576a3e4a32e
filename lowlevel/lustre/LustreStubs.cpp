#include "lowlevel/internal/LastError.h"
#include "lowlevel/internal/StubData.h"
#include "lowlevel/lustre/LustreArchive.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "platform/errors/ErrorText.h"
#include "platform/errors/FXString.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/utf_files.h"
#include "platform/logging/ProcessLog.h"
#include "platform/process/NkProcess.h"
#include "platform/stub/StubAttributes.h"
#include "platform/stub/StubText.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

/// Runs a command of "lfs" on a path, which is neither quoted nor escaped: callers that pass several words or
/// quote by themselves rely on it. The exit status, or negative with the error set if it could not be run.
int runOn(QZHSMLowLevel& backEnd, const char* command, const char* path, std::string& out, std::string& err) {
    const std::string line = std::string(command) + path;
    [[maybe_unused]] const NkProcess process; // as a library of a deployment's own may want it
    const int result = NkProcess::system(line.c_str(), &out, &err, 0, true);
    if (result < 0)
        fail(backEnd, QZHSM_FAILURE, line + " failed, error=" + err);
    return result;
}

} // namespace

int QZHSMLowLevelLustre::getHSMState(const char* path, std::string& state) {
    constexpr const char* kTag = "int QZHSMLowLevelLustre::getHSMState(const char*, std::string&)";
    clearError(*this);
    if (CLogWriterInterface* log = processLog(3))
        log->Write(3, kTag, 227, 0, 0, "%s", (std::string("lfs hsm_state ") + path).c_str());
    std::string out;
    std::string err;
    if (runOn(*this, "lfs hsm_state ", path, out, err) < 0)
        return -1;
    if (CLogWriterInterface* log = processLog(3)) // the service may have changed it meanwhile
        log->Write(3, kTag, 234, 0, 0, "%s sOut=%s, sErr=%s", path, out.c_str(), err.c_str());
    state = std::move(out);
    return 0;
}

int QZHSMLowLevelLustre::isStub(const char* path) {
    presetNotAStub(*this, path); // the answer for a plain file
    char text[kStubTextMax + 1] = {};
    if (::lgetxattr(LocalPath(path).c_str(), kStubTextAttribute, text, kStubTextMax) < 0) {
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
    clearError(*this);
    *isStub = this->isStub(path) != 0;
    *state = QZHSM_FILE_STATE_PLAIN;
    return 0;
}

int QZHSMLowLevelLustre::stubFile(const char* path, const char* stubMeta, time_t refTime, long long) {
    clearError(*this);
    const std::string requestData = FXString::Format("%s|%ld", stubMeta, refTime);
    if (CLogWriterInterface* log = processLog(3))
        log->Write(
            3, "virtual int QZHSMLowLevelLustre::stubFile(const char*, const char*, time_t, long long int)",
            292, 0, 0, "stubFile(%s, %s)", path, requestData.c_str());
    std::string errorText;
    const int result = archiveAndWait(LocalPath(path).c_str(), requestData.c_str(), errorText);
    if (result < 0)
        return fail(*this, QZHSM_FAILURE, errorText + " " + path + " " + errnoReason(-result));
    return releaseFile(path, true);
}

int QZHSMLowLevelLustre::releaseFile(const char* path, bool removeAttrOnFailure) {
    constexpr const char* kTag = "int QZHSMLowLevelLustre::releaseFile(const char*, bool)";
    clearError(*this);
    if (CLogWriterInterface* log = processLog(3))
        log->Write(3, kTag, 202, 0, 0, "releaseFile(%s)", path);
    std::string out;
    std::string err;
    if (runOn(*this, "lfs hsm_release ", path, out, err) >= 0)
        return 0;
    if (removeAttrOnFailure && ::removexattr(LocalPath(path).c_str(), kStubTextAttribute) < 0) {
        const int reason = errno;
        if (CLogWriterInterface* log = processLog(-1))
            log->Write(-1, kTag, 214, 0, 0, "removexattr(%s) failed, error=%s", path,
                       errnoReason(reason).c_str());
    }
    return -1;
}

int QZHSMLowLevelLustre::backupStub(const char* path, std::vector<char>& stubData) {
    constexpr size_t kFirstGuess = 1024;
    clearError(*this);
    stubData.resize(kFirstGuess);
    for (;;) {
        if (!readStubAttribute(path, stubData))
            return -1;
        int length = 0;
        if (!qzhsm_stub2meta(stubData.data(), &length, nullptr, nullptr, 0, true))
            return fail(*this, QZHSM_NOT_A_STUB, std::string(path) + " is not a stub.");
        const bool whole = static_cast<size_t>(length) <= stubData.size();
        stubData.resize(static_cast<size_t>(length));
        if (!whole)
            continue;
        if (CLogWriterInterface* log = processLog(5))
            log->Write(5, "virtual int QZHSMLowLevelLustre::backupStub(const char*, std::vector<char>&)", 130,
                       0, 0, "backupStub(%s, %ld)", path, static_cast<long>(stubData.size()));
        return 0;
    }
}

int QZHSMLowLevelLustre::restoreStub(const char* path, const std::vector<char>& stubData) {
    clearError(*this);
    std::vector<char> meta;
    long long size = 0;
    if (decodeStubData(*this, path, stubData, meta, size) < 0)
        return -1;
    {
        const UniqueFd file(open_utf(path, O_WRONLY | O_CREAT | O_TRUNC, 0600));
        if (!file.isOpen()) {
            const int err = errno;
            return failErrno(*this, QZHSM_FAILURE, "Failed to open ", std::string(path) + " for writing",
                             err);
        }
        if (::fsetxattr(file.get(), kStubTextAttribute, stubData.data(), stubData.size(), XATTR_CREATE) < 0)
            return fail(*this, QZHSM_FAILURE,
                        std::string("Failed to set xattr") + path + " error=" + errnoReason(errno));
        if (::lseek(file.get(), size - 1, SEEK_SET) < 0 || ::write(file.get(), "", 1) < 0)
            return failErrno(*this, QZHSM_FAILURE, "Failed to write into ", path, errno);
    }
    return releaseFile(path, true);
}

int QZHSMLowLevelLustre::restoreDone(const char*, bool success, const std::list<long long>&) {
    clearError(*this);
    return success ? 1 : 0;
}
