#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "platform/drivers/LustreAPI.h"
#include "platform/errors/ErrorText.h"
#include "platform/errors/FXString.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/utf_files.h"
#include "platform/logging/ProcessLog.h"
#include "platform/stub/StubText.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

constexpr const char* kStubText = "user.TSTUB";

} // namespace

int QZHSMLowLevelLustre::stubFile(const char* path, const char* stubMeta, time_t refTime, long long) {
    clearError();
    const std::string requestData = FXString::Format("%s|%ld", stubMeta, refTime);
    if (CLogWriterInterface* log = processLog(3))
        log->Write(
            3, "virtual int QZHSMLowLevelLustre::stubFile(const char*, const char*, time_t, long long int)",
            292, 0, 0, "stubFile(%s, %s)", path, requestData.c_str());
    std::string errorText;
    const int result = LustreAPI::HSMArchive(LocalPath(path).c_str(), requestData.c_str(), errorText);
    if (result < 0)
        return fail(QZHSM_FAILURE, errorText + " " + path + " " + errnoReason(-result));
    return releaseFile(path, true);
}

int QZHSMLowLevelLustre::releaseFile(const char* path, bool removeAttrOnFailure) {
    constexpr const char* kTag = "int QZHSMLowLevelLustre::releaseFile(const char*, bool)";
    clearError();
    if (CLogWriterInterface* log = processLog(3))
        log->Write(3, kTag, 202, 0, 0, "releaseFile(%s)", path);
    std::string out;
    std::string err;
    if (runOn("lfs hsm_release ", path, out, err) >= 0)
        return 0;
    if (removeAttrOnFailure && ::removexattr(LocalPath(path).c_str(), kStubText) < 0) {
        const int reason = errno;
        if (CLogWriterInterface* log = processLog(-1))
            log->Write(-1, kTag, 214, 0, 0, "removexattr(%s) failed, error=%s", path,
                       errnoReason(reason).c_str());
    }
    return -1;
}

int QZHSMLowLevelLustre::backupStub(const char* path, std::vector<char>& stubData) {
    constexpr size_t kFirstGuess = 1024;
    clearError();
    stubData.resize(kFirstGuess);
    for (;;) {
        if (!readStubAttribute(path, stubData))
            return -1;
        int length = 0;
        if (!qzhsm_stub2meta(stubData.data(), &length, nullptr, nullptr, 0, true))
            return fail(QZHSM_NOT_A_STUB, std::string(path) + " is not a stub.");
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
    clearError();
    std::vector<char> meta;
    long long size = 0;
    if (decodeStubData(path, stubData, meta, size) < 0)
        return -1;
    {
        const UniqueFd file(open_utf(path, O_WRONLY | O_CREAT | O_TRUNC, 0600));
        if (!file.isOpen()) {
            const int err = errno;
            return failErrno(QZHSM_FAILURE, "Failed to open ", std::string(path) + " for writing", err);
        }
        if (::fsetxattr(file.get(), kStubText, stubData.data(), stubData.size(), XATTR_CREATE) < 0)
            return fail(QZHSM_FAILURE,
                        std::string("Failed to set xattr") + path + " error=" + errnoReason(errno));
        if (::lseek(file.get(), size - 1, SEEK_SET) < 0 || ::write(file.get(), "", 1) < 0)
            return failErrno(QZHSM_FAILURE, "Failed to write into ", path, errno);
    }
    return releaseFile(path, true);
}

int QZHSMLowLevelLustre::openFileTrans(const char*, int, int) {
    return refuse("openFileTrans");
}

int QZHSMLowLevelLustre::readFileTrans(void*, int) {
    return refuse("readFileTrans");
}

int QZHSMLowLevelLustre::writeFileTrans(const void*, int, long long) {
    return refuse("writeFileTrans");
}

long long QZHSMLowLevelLustre::seekFileTrans(long long, int) {
    return refuse("seekFileTrans");
}

int QZHSMLowLevelLustre::closeFileTrans() {
    return refuse("closeFileTrans");
}

int QZHSMLowLevelLustre::setAMCTime(const char*, long, long, long) {
    return refuse("setAMCTime");
}
