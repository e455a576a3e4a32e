#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"

#include "platform/logging/ProcessLog.h"
#include "platform/stub/StubText.h"

#include <cerrno>
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
    if (::uuid_parse(versionGuid.c_str(), guid) == 0)
        return CWbError::Success();

    const int err = errno;
    if (CLogWriterInterface* log = processLog(-1))
        log->Write(-1, kTag, 472, 0, 0, "uuid_parse(%s) failed, version-guid=%s", versionGuid.c_str(),
                   record.versionGuid.c_str());
    return FXErrorUtil::ErrorErrNo({kTag, kFile, 473}, err, "uuid_parse(%s) failed", versionGuid.c_str());
}
