#include "service/RecallJob.h"

#include "service/FileIo.h"
#include "service/FileRights.h"
#include "service/Flush.h"
#include "service/NotedObject.h"
#include "service/Times.h"
#include "service/TransparentFile.h"
#include "service/stores/Checksums.h"
#include "service/stores/StubMetadata.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/falloc.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t kBlock = 4096;
constexpr const char* kAllTheSame = "With --force it is recalled all the same.";

} // namespace

RecallJob::RecallJob(StubKind& kind, OpenFile file, bool force, Observer& observer)
    : m_kind(kind), m_file(std::move(file)), m_force(force), m_observer(observer) {}

// --- What is looked at before the stub is touched ---

RecallJob::Held RecallJob::hold() {
    m_kind.requireRecalling(m_file);
    UniqueFd held = m_kind.hold(m_file);
    return hold(std::move(held), m_kind.look(m_file));
}

RecallJob::Held RecallJob::hold(UniqueFd held, FileLook look) {
    m_flushable = std::move(held);
    m_look = std::move(look);
    const std::string& name = m_file.name();
    switch (m_look.state) {
    case FileState::Stub:
    case FileState::HalfRecalled:
    case FileState::Emptied:
        return Held::ToRecall;
    case FileState::Leftover:
        if (!m_look.kept->recalling && m_look.st.st_size == 0)
            throw Failure(QZHSM_NOT_A_STUB, name + " is no stub: one was to be restored here, and was not",
                          "\"qzhsm restore-stub\" can be repeated.");
        dropKeptText(m_file);
        return Held::WasRecalled;
    case FileState::ChangedStub:
        failUnlessForced(name + " was changed since it was stubbed: " + m_look.why);
        return Held::ToRecall;
    case FileState::MarkedWhole:
    case FileState::Lost:
        throw Failure(QZHSM_NOT_A_STUB, name + " has no valid stub text: it is " + nameOf(m_look.state),
                      m_kind.advice(name, QZHSM_NOT_A_STUB));
    case FileState::Copy:
        throw Failure(QZHSM_NOT_A_STUB, name + " is a copy of a stub: it carries no mark and holds no data",
                      kCopyAdvice);
    case FileState::HalfMarked:
    case FileState::Plain:
        break;
    }
    throw Failure(QZHSM_NOT_A_STUB, name + " is not a stub", m_kind.advice(name, QZHSM_NOT_A_STUB));
}

/// What points to data being lost is a failure, unless it is wanted.
void RecallJob::failUnlessForced(const std::string& text) {
    if (!m_force)
        throw Failure(QZHSM_FAILURE, text, kAllTheSame);
    m_observer.note("warning: " + text);
}

void RecallJob::examineLength(long long total) {
    if (total != m_look.recordedSize)
        failUnlessForced(m_source->name() + " has " + std::to_string(total) + " bytes, but the stub " +
                         m_file.name() + " records " + std::to_string(m_look.recordedSize));
}

void RecallJob::tellLonger() {
    if (!std::exchange(m_longerTold, true))
        failUnlessForced(m_source->name() + " has more than the " + std::to_string(m_look.recordedSize) +
                         " bytes that the stub " + m_file.name() + " records");
}

void RecallJob::throwSourceChanged() const {
    throw Failure(QZHSM_BUSY, m_source->name() + " changed its length while it was read");
}

// --- The steps ---

void RecallJob::begin(std::unique_ptr<DataSource> source) {
    m_source = std::move(source);
    m_size = m_look.st.st_size;
    m_time = m_look.st.st_mtim;
    if (m_kind.keepsTextInFile() && m_look.attributes) // finding the source may have taken long
        requireUntouched();
    // A file that was half recalled or half stubbed has times of that making. Without attributes it looks
    // like a stub.
    const std::optional<timespec> modified = m_source->modified();
    const timespec& found = m_look.st.st_mtim;
    const bool isLater = modified && (found.tv_sec > modified->tv_sec || (found.tv_sec == modified->tv_sec &&
                                                                          found.tv_nsec > modified->tv_nsec));
    if (m_look.state == FileState::Stub && m_look.attributes && !m_look.kept && isLater)
        failUnlessForced(m_file.name() + " was changed since it was stubbed: it was written to later");
    if (m_source->size())
        examineLength(*m_source->size());
    m_capabilities = readCapabilities(m_file);
    if (m_capabilities.empty() && m_look.kept) // a kill may have been in the way of putting them back
        m_capabilities = m_source->capabilities();
    putTimesBack(); // without the right to do so this fails now, not at the end
    noteTime();     // read back, for some file systems round it
    if (m_kind.keepsTextInFile())
        m_kept = keepText(m_file, {m_look.text, true, timeOfData()});
}

void RecallJob::writeRest() {
    const size_t page = endOfPage();
    // An emptied file, or one that a user has lengthened and gives up, gets its size first: what a kill
    // leaves must fit its text.
    if (m_kept && m_look.st.st_size != m_look.recordedSize &&
        m_look.st.st_size != std::max(m_look.recordedSize, static_cast<long long>(m_look.text.size()))) {
        setSize(m_look.recordedSize);
        pin();
        noteTime();
    }
    const auto known = m_source->size();
    std::span<const char> piece = m_source->next();
    m_page.assign(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(std::min(page, piece.size())));
    requireUntouched();
    requireOurs(m_page, 0);
    m_written = m_isMoved = m_kind.keepsTextInFile(); // to make a hole moves the time
    // With what an earlier recall has left each piece is compared before it goes.
    if (m_look.state == FileState::HalfRecalled)
        m_skipsZeros = m_punchesZeros = true;
    else
        punch(static_cast<long long>(page), m_kept);
    pin();
    TransparentFile file(m_kind.backEnd(), m_kind.pathOf(m_file), O_WRONLY);
    ChecksumStream sum; // what comes from a store is compared there
    for (size_t skip = m_page.size(); !piece.empty(); piece = m_source->next(), skip = 0) {
        if (m_total > 0)
            requireUntouched();
        if (!m_source->object())
            sum.add(piece.data(), piece.size());
        // Before it is written: a stub that grew would pass for that of a longer file.
        const auto length = static_cast<long long>(piece.size());
        if (known && m_total + length > *known)
            throwSourceChanged();
        if (!known && m_total + length > m_look.recordedSize)
            tellLonger();
        const std::span<const char> rest = piece.subspan(skip);
        requireOurs(rest, m_total + static_cast<long long>(skip));
        m_written = m_isMoved = true;
        if (!m_source->isHole() || !m_skipsZeros || m_punchesZeros)
            write(file, rest.data(), rest.size(), m_total + static_cast<long long>(skip));
        m_total += length;
        pin();
        m_observer.bytes(length);
    }
    file.close();
    startWriting(0, 0); // a size of 0 stands for all there is
    if (known && m_total != *known)
        throwSourceChanged();
    if (!known && m_total <= m_look.recordedSize)
        examineLength(m_total);
    const std::optional<StubMetadata> metadata = StubMetadata::fromText(m_look.meta);
    if (!m_source->object() && metadata && metadata->xxh128 != sum.finish().whole)
        failUnlessForced(m_source->name() + " is not the data of the stub " + m_file.name() +
                         ": the checksums differ");
}

void RecallJob::writePage() {
    requireUntouched();
    m_written = m_pageWritten = m_isMoved = true;
    TransparentFile file(m_kind.backEnd(), m_kind.pathOf(m_file), O_WRONLY);
    file.write(m_page, 0);
    file.close();
    pin();
}

void RecallJob::beginPieces() {
    m_total = m_look.recordedSize;
    // Readers see it from the first piece on. One that was emptied may lack its size, a small one is as long
    // as its stub text.
    if (m_look.st.st_size == m_total)
        return;
    setSize(m_total);
    noteTime();
}

/// That of the data: what is there of it would count as changed otherwise, if the recall is cut off.
void RecallJob::setSize(long long size) {
    requireUntouched();
    m_written = m_pageWritten = m_isMoved = true;
    if (::truncate(m_file.path().c_str(), size) < 0)
        throw systemFailure("Failed to give its length back to ", m_file.name(), errno);
    m_size = size;
}

void RecallJob::writePiece(std::span<const char> bytes, long long offset) {
    if (m_source->isHole() && offset > 0 && m_look.state == FileState::Stub) // it is one there too
        return m_observer.bytes(static_cast<long long>(bytes.size()));
    requireUntouched(); // writers wait, but not those who had the file open before anybody was told to
    requireOurs(bytes, offset);
    m_written = m_pageWritten = m_isMoved = true;
    const size_t text = offset == 0 ? std::min(endOfPage(), bytes.size()) : 0;
    m_skipsZeros = true;
    m_punchesZeros = m_look.state != FileState::Stub; // an earlier recall may have left data
    TransparentFile file(m_kind.backEnd(), m_kind.pathOf(m_file), O_WRONLY);
    if (text > 0)
        file.write({bytes.data(), text}, 0);
    write(file, bytes.data() + text, bytes.size() - text, offset + static_cast<long long>(text));
    file.close();
    noteTime(); // to put back that of the data each time would cost readers more
    m_observer.bytes(static_cast<long long>(bytes.size()));
}

void RecallJob::startWriting(long long offset, size_t size) const {
    ::sync_file_range(m_flushable.get(), offset, static_cast<off_t>(size), SYNC_FILE_RANGE_WRITE);
}

void RecallJob::end() {
    requireUntouched();
    m_isMoved = true;
    const bool shortens = m_total < m_size;
    const auto shorten = [&] {
        if (shortens && ::truncate(m_file.path().c_str(), m_total) < 0)
            throw systemFailure("Failed to truncate ", m_file.name(), errno);
    };
    if (!m_kind.shortensLast())
        shorten();
    // A file that was emptied, and not given its size again, does not reach to the end of a hole.
    if (m_kind.keepsTextInFile() && m_file.stat().st_size < m_total &&
        ::truncate(m_file.path().c_str(), m_total) < 0)
        throw systemFailure("Failed to lengthen ", m_file.name(), errno);
    putRightsBack(m_file, m_capabilities, m_look.st);
    putTimesBack();
    m_size = m_total;
    noteTime();
    QZHSMLowLevel& backEnd = m_kind.backEnd();
    if (m_look.marked && backEnd.restoreDone(m_kind.pathOf(m_file).c_str(), true, {}) < 0)
        throw Failure(backEnd);
    m_ended = true;
    if (m_kept)
        dropKeptText(m_file);
    if (m_look.attributes && m_source->object())
        noteObject(m_file, *m_source->object());
    if (m_kind.shortensLast() && shortens) {
        shorten();
        putTimesBack();
    }
}

// --- Pieces of the above ---

size_t RecallJob::endOfPage() const {
    return (std::max<size_t>(m_look.text.size(), 1) + kBlock - 1) / kBlock * kBlock;
}

bool RecallJob::isSame() const {
    const struct stat now = m_file.stat();
    return now.st_size == m_size && isSameTime(now.st_mtim, m_time);
}

/// Between two steps others may come near: another recall may have ended, or a user have written.
void RecallJob::requireUntouched() {
    if (m_kind.keepsTextInFile()) {
        m_isChanged = !isSame();
        if (m_isChanged)
            throw Failure(QZHSM_BUSY, m_file.name() + " was changed while it was recalled");
    } else if (!m_kind.isStub(m_kind.pathOf(m_file), m_look.st)) {
        throw Failure(QZHSM_NOT_A_STUB, m_file.name() + " has ceased to be a stub");
    }
}

/// Where this data is to be, a recall that was cut off has left some of it, zeros and the stub's text. What
/// else is there somebody has written since: the time of our last write is not known, but the bytes are.
void RecallJob::requireOurs(std::span<const char> data, long long offset) const {
    if (m_look.state != FileState::HalfRecalled || m_force)
        return;
    std::vector<char> found(data.size());
    found.resize(readAt(flushable(), found.data(), found.size(), offset, m_file.name()));
    const std::string_view text =
        std::string_view(m_look.text).substr(std::min(static_cast<size_t>(offset), m_look.text.size()));
    for (size_t i = 0; i < found.size(); ++i)
        if (found[i] != data[i] && found[i] != '\0' && (i >= text.size() || found[i] != text[i]))
            throw Failure(QZHSM_FAILURE, m_file.name() + " is half recalled, and holds what is not its data",
                          kAllTheSame);
}

/// Puts the time back after a write of our own, so that a write by anybody else shows.
void RecallJob::pin() {
    if (!m_kind.keepsTextInFile())
        return;
    putTimesBack();
    m_isMoved = false;
    if (m_total > m_size)
        m_size = m_file.stat().st_size;
}

/// The time that a step of ours has left.
void RecallJob::noteTime() {
    m_time = m_file.stat().st_mtim;
    m_isMoved = false;
}

/// Blocks of zeros stay the holes that they are.
void RecallJob::write(TransparentFile& file, const char* bytes, size_t count, long long offset) const {
    for (size_t from = 0; from < count;) {
        size_t to = from;
        const auto isZero = [&](size_t at) { return allZero({bytes + at, std::min(kBlock, count - at)}); };
        while (to < count && !(m_skipsZeros && isZero(to)))
            to = std::min(to + kBlock, count);
        if (to > from)
            file.write({bytes + from, to - from}, offset + static_cast<long long>(from));
        from = to;
        while (from < count && m_skipsZeros && isZero(from))
            from = std::min(from + kBlock, count);
        if (from > to && m_punchesZeros &&
            !punchHole(offset + static_cast<long long>(to), static_cast<long long>(from - to)))
            file.write({bytes + to, from - to}, offset + static_cast<long long>(to));
    }
}

/// Makes a hole of all from there on, so that zeros need not be written. An earlier recall may have left
/// data.
void RecallJob::punch(long long from, bool mayShorten) {
    if (!m_kind.keepsTextInFile() || from >= m_look.st.st_size) {
        m_skipsZeros = m_kind.keepsTextInFile();
        return;
    }
    const UniqueFd file = m_file.open(O_WRONLY);
    m_skipsZeros = ::fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, from,
                               m_look.st.st_size - from) == 0;
    if (m_skipsZeros)
        return;
    // A file system that cannot punch can shorten, and lengthen again. In between the text would not fit.
    m_skipsZeros =
        mayShorten && ::ftruncate(file.get(), from) == 0 && ::ftruncate(file.get(), m_look.st.st_size) == 0;
}

/// False if the file system cannot do that.
bool RecallJob::punchHole(long long from, long long count) const {
    const UniqueFd file = m_file.open(O_WRONLY);
    if (::fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, from, count) == 0)
        return true;
    if (errno == EOPNOTSUPP)
        return false;
    throw systemFailure("Failed to punch a hole into ", m_file.name(), errno);
}

/// The time that goes with the data. A file on which another recall was cut off has one of that recall's
/// making.
timespec RecallJob::timeOfData() const {
    if (m_look.kept && m_look.kept->recalling)
        return m_look.kept->modified;
    const std::optional<timespec> recorded = m_source ? m_source->modified() : std::nullopt;
    // An earlier time was set by the user: it stays.
    if (recorded && m_look.state == FileState::Stub && !m_look.kept &&
        m_look.st.st_mtim.tv_sec < recorded->tv_sec)
        return m_look.st.st_mtim;
    return recorded.value_or(m_look.kept ? m_look.kept->modified : m_look.st.st_mtim);
}

void RecallJob::putTimesBack() {
    ::putTimesBack(m_file, m_look.st.st_atim, timeOfData());
}
