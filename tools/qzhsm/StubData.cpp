#include "tools/qzhsm/StubData.h"

#include "platform/stub/StubText.h"
#include "tools/qzhsm/BackEnds.h"
#include "tools/qzhsm/FileIo.h"
#include "tools/qzhsm/Report.h"

#include <algorithm>

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

std::vector<char> readStubData(const QZHSMLowLevel& backEnd, const std::string& path) {
    std::vector<char> data = readUpTo(openForReading(path).get(), kStubTextMax + 1, path);
    const std::optional<StubFacts> facts = readFacts(data);
    const bool whole = facts && static_cast<size_t>(facts->textLength) == data.size();
    if (!whole)
        throw Failure(QZHSM_FAILURE, "Stub " + path + " has corrupt metadata.");
    if (facts->fileSize == 0 && !asksDriver(backEnd))
        throw Failure(QZHSM_FAILURE, "Stub " + path + " is of an empty file, which cannot be restored here");
    requireMetadata(backEnd, {data.begin() + kStubTextPrefix, data.end()});
    return data;
}
