#include "tools/qzhsm/StubData.h"

#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"
#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "platform/stub/StubText.h"
#include "tools/qzhsm/FileIo.h"
#include "tools/qzhsm/Report.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <string_view>
#include <unistd.h>

namespace {

constexpr size_t kDriverTextLimit = 2047;

void requireFitting(const QZHSMLowLevel& backEnd, const char* what, const std::string& text) {
    if (asksDriver(backEnd) && text.size() > kDriverTextLimit)
        throw Failure(QZHSM_FAILURE, what + (" of " + std::to_string(text.size())) +
                                         " bytes: the driver takes at most " +
                                         std::to_string(kDriverTextLimit));
}

} // namespace

bool keepsTextInFile(const QZHSMLowLevel& backEnd) {
    return dynamic_cast<const QZHSMLowLevelDriverless*>(&backEnd) != nullptr;
}

bool marksOnly(const QZHSMLowLevel& backEnd) {
    return dynamic_cast<const QZHSMLowLevelGlusterFs*>(&backEnd) != nullptr;
}

bool asksDriver(const QZHSMLowLevel& backEnd) {
    return dynamic_cast<const QZHSMLowLevelQZFS*>(&backEnd) != nullptr;
}

bool asksLustre(const QZHSMLowLevel& backEnd) {
    return dynamic_cast<const QZHSMLowLevelLustre*>(&backEnd) != nullptr;
}

void requirePath(const QZHSMLowLevel& backEnd, const std::string& path) {
    requireFitting(backEnd, "Path", path);
    const auto isPlain = [](unsigned char c) {
        return std::isalnum(c) || c >= 0x80 ||
               std::string_view("/._-+,:@%=").find(static_cast<char>(c)) != std::string_view::npos;
    };
    if (asksLustre(backEnd) && (path.starts_with('-') || !std::ranges::all_of(path, isPlain)))
        throw Failure(
            QZHSM_FAILURE,
            path + ": Lustre's command is run by a shell, which would not take this path as it stands");
}

void requireMetadata(const QZHSMLowLevel& backEnd, const std::string& meta) {
    requireFitting(backEnd, "Metadata", meta);
}

void requireName(const QZHSMLowLevel& backEnd, const std::string& path) {
    constexpr size_t kLongest = NAME_MAX - std::string_view(".nktmp.0").size();
    const size_t length = std::filesystem::path(path).filename().native().size();
    if (asksDriver(backEnd) && length > kLongest)
        throw Failure(QZHSM_FAILURE, path + ": a name of " + std::to_string(length) +
                                         " bytes cannot be recalled; the longest that can has " +
                                         std::to_string(kLongest));
}

std::string adviceToWatch(QZHSMLowLevel& backEnd, const std::string& path) {
    return asksDriver(backEnd) && backEnd.isDMRFS(path.c_str()) == 0
               ? "Its file system is not watched: see \"qzhsm watch\"."
               : "";
}

bool isStubFile(QZHSMLowLevel& backEnd, const std::string& path, const struct stat& st) {
    // Nothing else is ever a stub, and to look into a pipe would be to wait for its writer.
    if (!S_ISREG(st.st_mode))
        return false;
    if (::access(path.c_str(), R_OK) < 0)
        throw systemFailure("Failed to read from ", path, errno);
    const int answer = backEnd.isStub(path.c_str());
    // Some back-ends say with code 8 what they answer too; what goes beyond that is damage.
    if (backEnd.m_errorCode == QZHSM_NOT_A_STUB && backEnd.m_errorText == path + " is not a stub")
        return answer != 0;
    return answered(backEnd, answer);
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

std::vector<char> readStubData(const QZHSMLowLevel& backEnd, const std::string& path) {
    std::vector<char> data = readUpTo(openForReading(path).get(), kStubTextMax + 1, path);
    const std::optional<StubFacts> facts = readFacts(data);
    const bool whole = facts && static_cast<size_t>(facts->textLength) == data.size();
    // There was nothing to archive of an empty file, and only the driver can make it a stub again.
    if (!whole || (facts->fileSize == 0 && !asksDriver(backEnd)))
        throw Failure(QZHSM_FAILURE, "Stub " + path + " has corrupt metadata.");
    requireMetadata(backEnd, {data.begin() + kStubTextPrefix, data.end()});
    return data;
}
