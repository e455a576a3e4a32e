#include "service/StubData.h"

#include "platform/stub/StubText.h"
#include "service/Failure.h"
#include "service/FileIo.h"

#include <algorithm>

bool beginsWithStubText(std::span<const char> bytes) {
    const auto length = static_cast<std::ptrdiff_t>(std::min<size_t>(bytes.size(), kStubTextPrefix));
    const std::string text(bytes.begin(), bytes.begin() + length);
    return qzhsm_stub2meta(text.c_str(), nullptr, nullptr, nullptr, 0, true);
}

std::optional<StubFacts> readFacts(const std::vector<char>& stubData) {
    return readFacts(std::string(stubData.begin(), stubData.end()));
}

std::string stubTextOf(const std::string& meta, long long fileSize) {
    const int length = qzhsm_meta2stub(meta.c_str(), fileSize, nullptr, 0);
    if (length < 0)
        return {};
    std::string text(static_cast<size_t>(length), '\0');
    qzhsm_meta2stub(meta.c_str(), fileSize, text.data(), length);
    return text;
}

std::optional<StubFacts> readFacts(const std::string& text) {
    std::vector<char> meta(text.size() + 1);
    StubFacts facts{};
    if (!qzhsm_stub2meta(text.c_str(), &facts.textLength, &facts.fileSize, meta.data(),
                         static_cast<int>(meta.size()), true))
        return {};
    facts.meta = meta.data();
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

std::vector<char> readSavedStub(const std::string& path) {
    std::vector<char> data = readUpTo(openForReading(path).get(), kStubTextMax + 1, path);
    const std::optional<StubFacts> facts = readFacts(data);
    if (!facts || static_cast<size_t>(facts->textLength) != data.size())
        throw Failure(QZHSM_FAILURE, "Stub " + path + " has corrupt metadata.");
    return data;
}
