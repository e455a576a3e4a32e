#include "lowlevel/glusterfs/CloudsyncAttributes.h"
#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "platform/errors/ErrorText.h"
#include "platform/errors/FXString.h"
#include "platform/files/utf_files.h"
#include "platform/logging/ProcessLog.h"
#include "platform/stub/StubText.h"

#include <cerrno>
#include <sys/xattr.h>
#include <uuid/uuid.h>

void TransformToStandardUUID(std::string& in, std::string& out) {
    const std::string last = in.substr(20, 12);
    out = in.substr(0, 8) + "-" + in.substr(8, 4) + "-" + in.substr(12, 4) + "-" + in.substr(16, 4) + "-" +
          last;
}

CWbError QZHSMLowLevelGlusterFs::GetVersionGUIDFromMetaInBinaryFormat(const char* stubMeta,
                                                                      unsigned char (&guid)[16],
                                                                      std::string& versionGuid) {
    constexpr const char* kTag = "CWbError QZHSMLowLevelGlusterFs::GetVersionGUIDFromMetaInBinaryFormat("
                                 "const char*, unsigned char (&)[16], std::string&)";
    constexpr const char* kFile = "QZHSMLowLevelGlusterFs";
    constexpr int kInvalidReparseData = 1627;
    ReparseData record;
    if (!ParseStubReparseData(stubMeta, record))
        return FXErrorUtil::ErrorErrNo({kTag, kFile, 477}, kInvalidReparseData,
                                       "Invalid stub reparse data[%s]", stubMeta);
    TransformToStandardUUID(record.versionGuid, versionGuid);
    errno = 0; // which the parser leaves alone: an older failure must not pass for its reason
    if (::uuid_parse(versionGuid.c_str(), guid) == 0)
        return CWbError::Success();

    const int err = errno;
    if (CLogWriterInterface* log = processLog(-1))
        log->Write(-1, kTag, 472, 0, 0, "uuid_parse(%s) failed, version-guid=%s", versionGuid.c_str(),
                   record.versionGuid.c_str());
    return FXErrorUtil::ErrorErrNo({kTag, kFile, 473}, err, "uuid_parse(%s) failed", versionGuid.c_str());
}

int QZHSMLowLevelGlusterFs::createOrUndo(const char* path, size_t attribute, std::string_view value,
                                         const char* shown) {
    const char* name = kCloudsyncAttributes[attribute];
    if (::setxattr(LocalPath(path).c_str(), name, value.data(), value.size(), XATTR_CREATE) == 0)
        return 0;
    fail(QZHSM_FAILURE, FXString::Format("stubFile(%s) failed, setxattr(%s, %s) failed, error=%s", path, name,
                                         shown, errnoReason(errno).c_str()));
    for (size_t before = 0; before < attribute; ++before)
        ::removexattr(LocalPath(path).c_str(), kCloudsyncAttributes[before]);
    return -1;
}

int QZHSMLowLevelGlusterFs::stubFile(const char* path, const char* stubMeta, time_t refTime, long long) {
    clearError();
    const auto refuse = [&](const std::string& reason) {
        return fail(QZHSM_FAILURE, FXString::Format("stubFile(%s) failed, error=%s", path, reason.c_str()));
    };
    struct stat st {};
    if (stat_utf(path, &st) != 0)
        return refuse(errnoReason(errno));
    if (st.st_mtime > refTime)
        return fail(
            QZHSM_FAILURE,
            FXString::Format("stubFile(%s) failed, file-changed since it backedup mtime(%ld)>reftime(%ld)",
                             path, st.st_mtime, refTime));

    unsigned char guid[16];
    std::string versionGuid;
    const CWbError error = GetVersionGUIDFromMetaInBinaryFormat(stubMeta, guid, versionGuid);
    if (error.IsError())
        return refuse(error.AsString());

    const int length = qzhsm_meta2stub(stubMeta, st.st_size, nullptr, 0);
    if (length < 0)
        return refuse(errnoReason(EMSGSIZE));
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
        if (createOrUndo(path, i, attributes[i].value, attributes[i].shown) < 0)
            return -1;
    return 0;
}

int QZHSMLowLevelGlusterFs::restoreStub(const char* path, const std::vector<char>&) {
    clearError();
    struct stat st {};
    if (stat_utf(path, &st) < 0)
        return fail(QZHSM_FAILURE,
                    FXString::Format("%snot found, error=%s", path, errnoReason(errno).c_str()));
    const std::string complete = std::to_string(st.st_mtime);
    return createOrUndo(path, Complete, complete, complete.c_str());
}

int QZHSMLowLevelGlusterFs::restoreDone(const char*, bool success, const std::list<long long>&) {
    clearError();
    return success ? 1 : 0;
}
