#include "lowlevel/QZHSMLowLevel.h"

#include "lowlevel/internal/LastError.h"
#include "lowlevel/internal/StubData.h"
#include "platform/files/UniqueFd.h"
#include "platform/files/utf_files.h"
#include "platform/stub/StubText.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

int QZHSMLowLevel::backupStubFromSnap(const char* path, std::vector<char>& stubData) {
    constexpr size_t kFirstGuess = 1024;
    clearError(*this);
    stubData.resize(kFirstGuess);
    for (;;) {
        if (!readStubAttribute(path, stubData)) {
            const UniqueFd file(open_utf(path, O_RDONLY, 0600));
            if (!file.isOpen())
                return failErrno(*this, QZHSM_FAILURE, "Failed to open ", path, errno);
            if (::read(file.get(), stubData.data(), stubData.size()) < 0)
                return failErrno(*this, QZHSM_FAILURE, "Failed to read from ", path, errno);
        }
        int length = 0;
        if (!qzhsm_stub2meta(stubData.data(), &length, nullptr, nullptr, 0, true))
            return fail(*this, QZHSM_NOT_A_STUB, std::string(path) + " is not a stub.");
        const bool whole = static_cast<size_t>(length) <= stubData.size();
        stubData.resize(static_cast<size_t>(length));
        if (whole)
            return 0;
    }
}
