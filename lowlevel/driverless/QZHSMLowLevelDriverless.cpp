#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "platform/config/NKPlatformInfo.h"
#include "platform/files/NkACL.h"

#include <cstring>

QZHSMLowLevelDriverless::QZHSMLowLevelDriverless() : m_aclHelper(NkACL::Helper::getInstance()) {
    const NKPlatformInfo info;
    char value[1024] = "";
    int size = sizeof value;
    info.getString("FileSystemAgent", "sArchiveNonExtData", value, &size);
    m_archiveNonExtData = std::strcmp(value, "yes") == 0;
}

// An open transparent file is left open: whoever holds the session may still be writing recalled data through
// it, and a closed number could by then be another file's.
QZHSMLowLevelDriverless::~QZHSMLowLevelDriverless() = default;
