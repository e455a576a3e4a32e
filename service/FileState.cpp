#include "service/FileState.h"

#include "platform/stub/StubAttributes.h"
#include "platform/stub/StubText.h"
#include "service/FileIo.h"
#include "service/StubData.h"
#include "service/Times.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr long long kPage = 4096;
/// How much of a file that should be a hole is read to see whether it holds only zeros. A stub's last byte is
/// written, and takes a block.
constexpr long long kMostZeros = 1 << 20;

void lookForMark(const OpenFile& file, FileLook& look) {
    char value[2];
    const ssize_t got = file.attribute(kStubMark, value, sizeof value);
    if (got < 0 && errno != ENODATA && errno != EOPNOTSUPP && errno != ERANGE)
        throw systemFailure("Failed to read attribute user.NkStubFile of ", file.name(), errno);
    look.attributes = got >= 0 || errno != EOPNOTSUPP;
    look.marked = got == 1 && value[0] == kStubMarkValue;
}

std::string bytesAt(int fd, const OpenFile& file, long long offset, size_t size) {
    std::string bytes(size, '\0');
    bytes.resize(readAt(fd, bytes.data(), size, offset, file.name()));
    return bytes;
}

/// Whether nothing but zeros lies from `offset` on.
bool isHole(int fd, const OpenFile& file, long long offset, const struct stat& st, bool attributes) {
    const long long size = st.st_size;
    // File systems without attributes tell no holes either, and fill those that anybody reads: there is no
    // telling there.
    if (!attributes)
        return true;
    long long looked = 0;
    while (offset < size) {
        const off_t data = ::lseek(fd, offset, SEEK_DATA);
        if (data < 0 && errno == ENXIO)
            return true;
        if (data < 0)
            throw systemFailure("Failed to look for data in ", file.name(), errno);
        if (looked == 0 && size - data <= kMostZeros) // as in a stub, whose last byte is data
            return allZero(bytesAt(fd, file, data, static_cast<size_t>(size - data)));
        const off_t hole = std::max<off_t>(::lseek(fd, data, SEEK_HOLE), data + 1);
        const long long length = std::min<long long>(hole, size) - data;
        looked += length;
        if (looked > kMostZeros || !allZero(bytesAt(fd, file, data, static_cast<size_t>(length))))
            return false;
        offset = hole;
    }
    return true;
}

/// What the file's own beginning, and the rest of it, look like.
struct Content {
    std::string text;        ///< the stub text at the beginning, if there is a valid one
    StubFacts facts{};       ///< of that text
    std::string beginning;   ///< up to a page, or up to the text's end if that is longer
    bool restIsHole = false; ///< behind `beginning`
    bool hasHoles = false;   ///< not looked for if its own text is all that there is

    /// Whether there is no data, or only what a torn write of stub text can leave.
    bool isEmpty() const { return restIsHole && (allZero(beginning) || beginning.starts_with("QZHSMSTUB ")); }
    /// Whether there is nothing but the first bytes of `whole`.
    bool isBeginningOf(const std::string& whole) const {
        const size_t end = beginning.find_last_not_of('\0') + 1;
        return restIsHole && whole.starts_with(beginning.substr(0, end));
    }
};

Content readContent(const OpenFile& file, const FileLook& look) {
    const UniqueFd opened = file.isReadable() ? UniqueFd() : file.open(O_RDONLY);
    const int fd = file.isReadable() ? file.fd() : opened.get();
    Content content;
    content.beginning = bytesAt(fd, file, 0, kPage);
    int length = 0;
    if (qzhsm_stub2meta(content.beginning.c_str(), &length, nullptr, nullptr, 0, true)) {
        if (static_cast<size_t>(length) > content.beginning.size())
            content.beginning = bytesAt(fd, file, 0, static_cast<size_t>(length));
        const std::string text = content.beginning.substr(0, static_cast<size_t>(length));
        const std::optional<StubFacts> facts = readFacts(text);
        if (facts && facts->textLength == static_cast<int>(text.size())) {
            content.text = text;
            content.facts = *facts;
        }
    }
    if (look.marked || look.kept || !content.text.empty()) // else it does not count, and may be long
        content.restIsHole =
            isHole(fd, file, static_cast<long long>(content.beginning.size()), look.st, look.attributes);
    if (look.kept || (look.marked && content.text.empty())) {
        const off_t hole = ::lseek(fd, 0, SEEK_HOLE);
        content.hasHoles = hole >= 0 && hole < look.st.st_size;
    }
    return content;
}

/// Whether the file has the size of the stub. One shorter than its text grew to the text's length.
bool fits(const FileLook& look) {
    const auto textLength = static_cast<long long>(look.text.size());
    return look.st.st_size == std::max(look.recordedSize, textLength) || look.st.st_size == look.recordedSize;
}

std::string sizeProblem(const FileLook& look) {
    return "header says " + std::to_string(look.recordedSize) + " bytes, file has " +
           std::to_string(look.st.st_size);
}

FileState changed(FileLook& look, std::string why) {
    look.why = std::move(why);
    return FileState::ChangedStub;
}

/// Empty if the file is the stub that its text describes, untouched.
std::string changeOf(const FileLook& look, const Content& content) {
    if (!fits(look))
        return sizeProblem(look);
    if (!content.restIsHole || !allZero(std::string_view(content.beginning).substr(look.text.size())))
        return "there is data behind its stub text";
    return {};
}

void setText(FileLook& look, std::string text, StubFacts facts) {
    look.text = std::move(text);
    look.recordedSize = facts.fileSize;
    look.meta = std::move(facts.meta);
}

/// Whether a file that carries a kept text and no mark does not hold its data. Those who keep the text take
/// the mark off behind the data, or set it before they empty the file.
bool isUnfinished(const FileLook& look, const Content& content) {
    if (content.beginning.starts_with(look.text))
        return true;
    const timespec& time = look.st.st_mtim;
    const timespec& its = look.kept->modified;
    if (isSameTime(time, its) ||
        isSameTime(time, {its.tv_sec, 0})) // which is all that some file systems keep
        return false;
    return look.kept->recalling ? content.hasHoles : look.st.st_size > 0 && content.isBeginningOf(look.text);
}

FileState stateOf(FileLook& look, const Content& content) {
    if (!look.marked && look.kept && isUnfinished(look, content))
        return changed(look, "it was on its way to or from a stub, and somebody has taken its mark off");
    if (!look.marked && look.attributes) {
        if (!content.text.empty() && changeOf(look, content).empty())
            return FileState::Copy;
        return look.kept ? FileState::Leftover : FileState::Plain;
    }
    if (look.kept && look.kept->recalling) {
        // A recall leaves the size as it is, but for the moment in which it takes out what it wrote.
        if (!fits(look) && !content.isBeginningOf(look.text))
            return changed(look, sizeProblem(look));
        return FileState::HalfRecalled;
    }
    if (!content.text.empty() && content.text == look.text) {
        const bool isTextAlone = look.st.st_size == static_cast<off_t>(look.text.size());
        if (look.kept && isTextAlone && !fits(look)) // the size was to come
            return FileState::Emptied;
        look.why = changeOf(look, content);
        return look.why.empty() ? FileState::Stub : FileState::ChangedStub;
    }
    if (!look.attributes)
        return FileState::Plain;
    if (!look.kept) { // a file with holes may have been a stub, and may have been written to
        look.holdsData = !content.isEmpty();
        return !look.holdsData || content.hasHoles ? FileState::Lost : FileState::MarkedWhole;
    }
    if (content.isBeginningOf(look.kept->text))
        return FileState::Emptied;
    // Who writes into a file that was emptied already must not pass for the data that was there before.
    const bool isTouched =
        look.kept->isAlone || nanoseconds(look.st.st_mtim) != nanoseconds(look.kept->modified);
    const bool isHollow =
        content.restIsHole && look.st.st_size > static_cast<off_t>(content.beginning.size());
    if (isTouched && (look.st.st_size < look.recordedSize || isHollow || content.hasHoles))
        return changed(look, "somebody has written to it on its way to a stub");
    return FileState::MarkedWhole;
}

} // namespace

const char* nameOf(FileState state) {
    switch (state) {
    case FileState::Plain:
        return "plain";
    case FileState::Stub:
        return "stub";
    case FileState::ChangedStub:
        return "changed stub";
    case FileState::MarkedWhole:
        return "marked and whole";
    case FileState::Emptied:
        return "emptied";
    case FileState::Lost:
        return "marked and empty";
    case FileState::HalfRecalled:
        return "half recalled";
    case FileState::Leftover:
        return "plain with leftover stub text";
    case FileState::HalfMarked:
        return "half marked as a stub";
    case FileState::Copy:
        return "copy of a stub";
    }
    return "";
}

bool isOdd(FileState state) {
    return state != FileState::Plain && state != FileState::Stub;
}

void requireUntouched(const OpenFile& file, const FileLook& look) {
    if (!isUntouched(file.stat(), look.st))
        throw Failure(QZHSM_BUSY, file.name() + " was changed while it was looked at");
}

bool mayBeCopy(const struct stat& st) {
    constexpr long long kMostBlocks = 4;
    return allocatedBytes(st) < st.st_size && allocatedBytes(st) <= kMostBlocks * st.st_blksize;
}

FileLook lookAt(const OpenFile& file, bool inside) {
    FileLook look;
    look.st = file.statOfLook();
    if (!S_ISREG(look.st.st_mode))
        return look;
    lookForMark(file, look);
    if (look.attributes)
        look.kept = readKeptText(file);
    if (look.kept && look.kept->isAlone && !look.marked) // a stub of Lustre's or GlusterFS's
        look.kept.reset();
    if (look.attributes && !look.marked && !look.kept && !inside)
        return look;
    const Content content = readContent(file, look);
    if (look.kept)
        setText(look, look.kept->text, readFacts(look.kept->text).value_or(StubFacts{}));
    else if (!content.text.empty())
        setText(look, content.text, content.facts);
    look.state = stateOf(look, content);
    return look;
}
