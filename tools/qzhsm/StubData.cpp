#include "tools/qzhsm/StubData.h"

#include "platform/stub/StubText.h"
#include "tools/qzhsm/FileIo.h"
#include "tools/qzhsm/Report.h"

#include <cerrno>
#include <unistd.h>

bool isStubFile(QZHSMLowLevel& backEnd, const std::string& path, const struct stat& st) {
    // Nothing else is ever a stub, and to look into a pipe would be to wait for its writer.
    if (!S_ISREG(st.st_mode))
        return false;
    if (::access(path.c_str(), R_OK) < 0)
        throw systemFailure("Failed to read from ", path, errno);
    return answered(backEnd, backEnd.isStub(path.c_str()));
}

bool beginsWithStubText(const std::vector<char>& bytes) {
    const std::string text(bytes.begin(), bytes.end());
    return qzhsm_stub2meta(text.c_str(), nullptr, nullptr, nullptr, 0, true);
}

std::string misfit(const std::vector<char>& stubData, long long size) {
    const std::string text(stubData.begin(), stubData.end());
    std::vector<char> meta(kStubTextMax);
    int length = 0;
    long long recorded = 0;
    if (!qzhsm_stub2meta(text.c_str(), &length, &recorded, meta.data(), kStubTextMax, true))
        return "no valid header";
    // A file shorter than its header grew to the header's length.
    if (size == recorded || (recorded < length && size == length))
        return {};
    return "header says " + std::to_string(recorded) + " bytes, file has " + std::to_string(size);
}

std::vector<char> readStubData(const std::string& path) {
    std::vector<char> data = readUpTo(openForReading(path).get(), kStubTextMax + 1, path);
    const std::string text(data.begin(), data.end());
    std::vector<char> meta(kStubTextMax);
    int length = 0;
    long long size = 0;
    // Size 0 is no stub's: there was nothing to archive, and no back-end can make such a stub again.
    if (!qzhsm_stub2meta(text.c_str(), &length, &size, meta.data(), kStubTextMax, false) ||
        static_cast<size_t>(length) != data.size() || size == 0)
        throw Failure(QZHSM_FAILURE, "Stub " + path + " has corrupt metadata.");
    return data;
}
