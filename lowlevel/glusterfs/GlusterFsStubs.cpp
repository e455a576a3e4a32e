#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"

#include "lowlevel/internal/LastError.h"
#include "platform/errors/ErrorText.h"
#include "platform/errors/FXString.h"
#include "platform/files/utf_files.h"
#include "platform/logging/ProcessLog.h"
#include "platform/stub/CloudsyncAttributes.h"
#include "platform/stub/StubText.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/xattr.h>

namespace {

constexpr size_t kStubDataMax = 4096;

ssize_t readAttribute(const char* path, const char* name, void* value, size_t size) {
    return ::lgetxattr(LocalPath(path).c_str(), name, value, size);
}

bool hasAttribute(const char* path, const char* name) {
    return readAttribute(path, name, nullptr, 0) != -1;
}

bool hasStubMarks(const char* path) {
    char product[64] = "";
    return readAttribute(path, kCloudsyncAttributes[ProductId], product, sizeof product) != -1 &&
           std::string_view(product, strnlen(product, sizeof product)) == kProductIdValue &&
           hasAttribute(path, kCloudsyncAttributes[StoreId]) &&
           hasAttribute(path, kCloudsyncAttributes[Uuid]) && hasAttribute(path, kRemote);
}

/// Creates one of the attributes. On failure removes those before it in the set: -1 with the error set,
/// `shown` being the value's part in the text, which names stubFile whoever the caller is.
int createOrUndo(QZHSMLowLevel& backEnd, const char* path, size_t attribute, std::string_view value,
                 const char* shown) {
    const char* name = kCloudsyncAttributes[attribute];
    if (::setxattr(LocalPath(path).c_str(), name, value.data(), value.size(), XATTR_CREATE) == 0)
        return 0;
    fail(backEnd, QZHSM_FAILURE,
         FXString::Format("stubFile(%s) failed, setxattr(%s, %s) failed, error=%s", path, name, shown,
                          errnoReason(errno).c_str()));
    for (size_t before = 0; before < attribute; ++before)
        ::removexattr(LocalPath(path).c_str(), kCloudsyncAttributes[before]);
    return -1;
}

} // namespace

int QZHSMLowLevelGlusterFs::getStubData(const char* path, bool& isStub, std::vector<char>& stubData,
                                        const off_t&) {
    presetNotAStub(*this, path); // stands on every way out but one: callers go by the result
    isStub = hasStubMarks(path);
    if (!isStub)
        return 0;
    for (;;) {
        stubData.assign(kStubDataMax, '\0');
        if (readAttribute(path, kCloudsyncAttributes[StubText], stubData.data(), stubData.size()) <= 0)
            return 0;
        int length = 0;
        if (!qzhsm_stub2meta(stubData.data(), &length, nullptr, nullptr, 0, false)) {
            isStub = false;
            fail(*this, QZHSM_NOT_A_STUB, std::string(path) + " is not a stub, corrupt meta-data");
            if (CLogWriterInterface* log = processLog(0))
                log->Write(0,
                           "int QZHSMLowLevelGlusterFs::getStubData(const char*, bool&, std::vector<char>&, "
                           "const off_t&)",
                           178, 0, 0, "%s", m_errorText.c_str());
            return -1;
        }
        stubData.resize(static_cast<size_t>(length));
        if (stubData.size() <= kStubDataMax)
            return 0;
    }
}

int QZHSMLowLevelGlusterFs::isStub(const char* path) {
    bool found = false;
    std::vector<char> stubData;
    getStubData(path, found, stubData, 0);
    return found ? 1 : 0;
}

int QZHSMLowLevelGlusterFs::getFileInfo(const char* path, bool* isStub, int* state) {
    clearError(*this);
    *isStub = this->isStub(path) != 0;
    *state = QZHSM_FILE_STATE_PLAIN;
    return 0;
}

int QZHSMLowLevelGlusterFs::backupStub(const char* path, std::vector<char>& stubData) {
    struct stat st {};
    if (statFile(path, &st) < 0)
        return -1;
    bool found = false;
    const int result = getStubData(path, found, stubData, st.st_size);
    return found ? result : fail(*this, QZHSM_FAILURE, std::string(path) + " is not a stub");
}

int QZHSMLowLevelGlusterFs::stubFile(const char* path, const char* stubMeta, time_t refTime, long long) {
    clearError(*this);
    const auto failBecause = [&](const std::string& reason) {
        return fail(*this, QZHSM_FAILURE,
                    FXString::Format("stubFile(%s) failed, error=%s", path, reason.c_str()));
    };
    struct stat st {};
    if (stat_utf(path, &st) != 0)
        return failBecause(errnoReason(errno));
    if (st.st_mtime > refTime)
        return fail(
            *this, QZHSM_FAILURE,
            FXString::Format("stubFile(%s) failed, file-changed since it backedup mtime(%ld)>reftime(%ld)",
                             path, st.st_mtime, refTime));

    unsigned char guid[16];
    std::string versionGuid;
    const CWbError error = GetVersionGUIDFromMetaInBinaryFormat(stubMeta, guid, versionGuid);
    if (error.IsError())
        return failBecause(error.AsString());

    const int length = qzhsm_meta2stub(stubMeta, st.st_size, nullptr, 0);
    if (length < 0)
        return failBecause(errnoReason(EMSGSIZE));
    std::vector<char> stubText(static_cast<size_t>(length));
    qzhsm_meta2stub(stubMeta, st.st_size, stubText.data(), length);

    // A second before the time that counts; `restoreStub` writes the file's own.
    const int64_t complete = refTime - 1;
    const std::string completeText = std::to_string(complete);
    if (CLogWriterInterface* log = processLog(5)) {
        constexpr const char* kTag =
            "virtual int QZHSMLowLevelGlusterFs::stubFile(const char*, const char*, time_t, long long int)";
        constexpr const char* kWillSet = "Will set xattr %s=[%s]";
        log->Write(5, kTag, 266, 0, 0, "stubFile(%s, %s), current_mtime=[%ld], reftime=[%ld]", path, stubMeta,
                   st.st_mtime, refTime);
        log->Write(5, kTag, 267, 0, 0, kWillSet, kCloudsyncAttributes[ProductId], kProductIdValue);
        log->Write(5, kTag, 268, 0, 0, kWillSet, kCloudsyncAttributes[StoreId], storeId.c_str());
        log->Write(5, kTag, 269, 0, 0, kWillSet, kCloudsyncAttributes[Uuid], versionGuid.c_str());
        log->Write(5, kTag, 270, 0, 0, "Will set xattr %s=[%ld]", kCloudsyncAttributes[Complete], complete);
    }

    const struct {
        std::string_view value;
        const char* shown;
    } attributes[] = {
        {kProductIdValue, kProductIdValue},
        {storeId, storeId.c_str()},
        {{reinterpret_cast<const char*>(guid), sizeof guid}, versionGuid.c_str()},
        {{stubText.data(), stubText.size()}, stubMeta},
        {completeText, completeText.c_str()},
    };
    static_assert(std::size(attributes) == std::size(kCloudsyncAttributes));
    for (size_t i = 0; i < std::size(attributes); ++i)
        if (createOrUndo(*this, path, i, attributes[i].value, attributes[i].shown) < 0)
            return -1;
    return 0;
}

int QZHSMLowLevelGlusterFs::restoreStub(const char* path, const std::vector<char>&) {
    clearError(*this);
    struct stat st {};
    if (stat_utf(path, &st) < 0)
        return fail(*this, QZHSM_FAILURE,
                    FXString::Format("%snot found, error=%s", path, errnoReason(errno).c_str()));
    const std::string complete = std::to_string(st.st_mtime);
    return createOrUndo(*this, path, Complete, complete, complete.c_str());
}

int QZHSMLowLevelGlusterFs::restoreDone(const char*, bool success, const std::list<long long>&) {
    clearError(*this);
    return success ? 1 : 0;
}
