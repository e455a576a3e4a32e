#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"

#include "lowlevel/driverless/StubMark.h"
#include "platform/config/NKPlatformInfo.h"
#include "platform/files/NkACL.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/utf_files.h"
#include "platform/stub/StubText.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

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

int QZHSMLowLevelDriverless::failFromAcl() {
    return fail(m_aclHelper->getLastErrno(), m_aclHelper->getLastError());
}

int QZHSMLowLevelDriverless::mark(const char* path) {
    if (m_aclHelper->supportsXattr(path) &&
        m_aclHelper->setAttribute(path, kStubMark, &kStubMarkValue, 1) < 0)
        return failFromAcl();
    return 0;
}

int QZHSMLowLevelDriverless::isStub(const char* path) {
    clearError();
    if (m_archiveAndDelete)
        return 0;
    struct stat st {};
    if (stat_utf(path, &st) < 0) {
        const int err = errno;
        failErrno(codeFor(err), "Failed to stat ", path, err);
        return 0;
    }
    if (m_aclHelper->supportsXattr(path)) {
        char value = '\0';
        return m_aclHelper->getAttribute(path, kStubMark, &value, 1) == 1 && value == kStubMarkValue ? 1 : 0;
    }

    char text[1024] = "";
    {
        const UniqueFd file(open_utf(path, O_RDONLY, 0600));
        if (!file.isOpen()) {
            fail(QZHSM_NOT_FOUND, std::string("Failed to open ") + path);
            return 0;
        }
        if (::read(file.get(), text, sizeof text) < 0) {
            fail(QZHSM_FAILURE, std::string("Failed to read from ") + path);
            return 0;
        }
    }
    int length = 0;
    const bool valid = qzhsm_stub2meta(text, &length, nullptr, nullptr, 0, true);
    const utimbuf times{st.st_atime, st.st_mtime};
    ::utime(path, &times);
    return valid ? 1 : 0;
}

int QZHSMLowLevelDriverless::getFileInfo(const char* path, bool* isStub, int* state) {
    *isStub = this->isStub(path) != 0;
    *state = QZHSM_FILE_STATE_PLAIN;
    return 0;
}

int QZHSMLowLevelDriverless::backupStub(const char* path, std::vector<char>& stubData) {
    clearError();
    return backupStubFromSnap(path, stubData);
}
