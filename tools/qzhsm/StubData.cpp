#include "tools/qzhsm/StubData.h"

#include "platform/stub/StubText.h"
#include "tools/qzhsm/FileIo.h"
#include "tools/qzhsm/Report.h"

#include <algorithm>
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
    const auto length = static_cast<std::ptrdiff_t>(std::min<size_t>(bytes.size(), kStubTextPrefix));
    const std::string text(bytes.begin(), bytes.begin() + length);
    return qzhsm_stub2meta(text.c_str(), nullptr, nullptr, nullptr, 0, true);
}

std::optional<StubFacts> readFacts(const std::vector<char>& stubData) {
    const std::string text(stubData.begin(), stubData.end());
    std::vector<char> meta(kStubTextMax);
    StubFacts facts{};
    if (!qzhsm_stub2meta(text.c_str(), &facts.textLength, &facts.fileSize, meta.data(), kStubTextMax, true))
        return {};
    return facts;
}

std::string misfit(const std::optional<StubFacts>& facts, long long size) {
    if (!facts)
        return "no valid header";
    // A file shorter than its header grew to the header's length.
    if (size == facts->fileSize || (facts->fileSize < facts->textLength && size == facts->textLength))
        return {};
    return "header says " + std::to_string(facts->fileSize) + " bytes, file has " + std::to_string(size);
}

std::vector<char> readStubData(const std::string& path) {
    std::vector<char> data = readUpTo(openForReading(path).get(), kStubTextMax + 1, path);
    const std::optional<StubFacts> facts = readFacts(data);
    // Size 0 is no stub's: there was nothing to archive, and no back-end can make such a stub again.
    if (!facts || static_cast<size_t>(facts->textLength) != data.size() || facts->fileSize == 0)
        throw Failure(QZHSM_FAILURE, "Stub " + path + " has corrupt metadata.");
    return data;
}
