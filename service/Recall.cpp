#include "service/Recall.h"

#include "platform/stub/StubText.h"
#include "service/FileIo.h"
#include "service/TransparentFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t kPiece = size_t{1} << 20;
constexpr const char* kHoldsNoData = " is a stub or the copy of one: it holds no data";

std::vector<char> headOf(int fd) {
    std::vector<char> head(kStubTextPrefix);
    const ssize_t got = ::pread(fd, head.data(), head.size(), 0);
    head.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return head;
}

} // namespace

Recall::Recall(StubKind& kind, std::string path, bool force, RecallObserver& observer)
    : m_kind(kind), m_backEnd(kind.backEnd()), m_path(std::move(path)), m_force(force), m_observer(observer),
      m_lock(kind.beforeRecall(m_path, statFollowing(m_path))) {
    m_before = statFollowing(m_path); // another recall may have ended just now
    if (!kind.isStub(m_path, m_before))
        throw Failure(QZHSM_NOT_A_STUB, m_path + " is not a stub", kind.advice(m_path, QZHSM_NOT_A_STUB));
}

void Recall::run(const RecallSource& source) {
    examine(source);
    putTimesBack(); // who may not do that could not end the recall
    long long written = 0;
    try {
        written = write(source);
        if (!m_kind.shortensLast())
            shorten(written);
        finish();
    } catch (const Failure& failure) {
        m_observer.failed(failure);
        return putBack();
    }
    if (m_kind.shortensLast() && shorten(written))
        putTimesBack();
}

// --- What is looked at before the stub is touched ---

void Recall::examine(const RecallSource& source) {
    struct stat st {};
    if (::fstat(source.file.get(), &st) < 0)
        throw systemFailure("Failed to stat ", source.name, errno);
    if (S_ISDIR(st.st_mode))
        throw systemFailure("Failed to read from ", source.name, EISDIR);
    if (isSameFile(st, m_before))
        throw Failure(QZHSM_FAILURE, source.name + " is the stub itself");

    if (m_backEnd.backupStub(m_path.c_str(), m_stubData) < 0)
        throw m_kind.lastFailure(m_path);
    const std::optional<StubFacts> facts = readFacts(m_stubData);
    const std::string problem = misfit(facts, m_before.st_size);
    if (!problem.empty())
        suspect(m_path + " was changed since it was stubbed: " + problem);
    m_recorded = facts ? facts->fileSize : 0;

    if (!source.isPath || !S_ISREG(st.st_mode))
        return;
    m_sourceSize = st.st_size;
    if (m_kind.isStubAsSource(source.name, st) || beginsWithStubText(headOf(source.file.get())))
        suspect(source.name + kHoldsNoData);
    examineLength(st.st_size, source.name);
}

/// What points to data being lost is a failure, unless it is wanted.
void Recall::suspect(const std::string& text) {
    if (!m_force)
        throw Failure(QZHSM_FAILURE, text, "With --force it is recalled all the same.");
    m_observer.note("warning: " + text);
}

void Recall::tellLength(const std::string& text) {
    if (!std::exchange(m_lengthTold, true))
        suspect(text);
}

void Recall::examineLength(long long total, const std::string& source) {
    if (m_recorded != total)
        tellLength(source + " has " + std::to_string(total) + " bytes, but the stub " + m_path + " records " +
                   std::to_string(m_recorded));
}

// --- The data ---

/// The first piece is written last: until then the stub's text stands, and whatever ends the process leaves a
/// stub that can be recalled again.
long long Recall::write(const RecallSource& source) {
    const auto next = [&] {
        std::vector<char> piece =
            readUpTo(source.file.get(), kPiece, source.name, [this] { stopIfInterrupted(); });
        stopIfInterrupted();
        return piece;
    };
    TransparentFile file(m_backEnd, m_kind.pathToOpen(m_path), O_WRONLY);
    const std::vector<char> first = next();
    auto total = static_cast<long long>(first.size());
    if (first.size() == kPiece) {
        for (std::vector<char> piece = next(); !piece.empty(); piece = next()) {
            const long long offset = total;
            total += static_cast<long long>(piece.size());
            if (total > m_recorded)
                tellLength(source.name + " has more than the " + std::to_string(m_recorded) +
                           " bytes that the stub " + m_path + " records");
            requireStub();
            m_written = true;
            file.write(piece, offset);
            m_observer.bytes(total, m_sourceSize.value_or(0));
        }
    }
    if (!m_sourceSize && beginsWithStubText(first))
        suspect(source.name + kHoldsNoData);
    examineLength(total, source.name);
    requireStub();
    m_written = m_headWritten = true;
    file.write(first, 0);
    file.close();
    return total;
}

void Recall::stopIfInterrupted() const {
    if (m_observer.isInterrupted())
        throw Failure(QZHSM_FAILURE, "Recall interrupted");
}

/// Another recall may have ended in the meantime, and the file be in use again.
void Recall::requireStub() {
    if (!m_kind.isStub(m_path, m_before))
        throw Failure(QZHSM_NOT_A_STUB, m_path + " has ceased to be a stub");
}

/// A stub may be longer than its data: a recall that was killed may have left more than that behind.
bool Recall::shorten(long long size) {
    if (size >= m_before.st_size)
        return false;
    if (::truncate(m_path.c_str(), size) < 0)
        throw Failure(QZHSM_FAILURE, systemFailure("Failed to truncate ", m_path, errno).what(),
                      "Its data are its first " + std::to_string(size) + " bytes.");
    return true;
}

// --- The end ---

void Recall::finish() {
    putTimesBack();
    flush();
    if (m_backEnd.restoreDone(m_path.c_str(), true, {}) >= 0)
        return;
    const Failure failure(m_backEnd);
    // If the file system keeps no marks there is none to remove, and the file is whole.
    if (m_backEnd.isStub(m_path.c_str()) != 0 || m_backEnd.m_errorCode != QZHSM_SUCCESS)
        throw Failure(failure);
}

/// The data goes to the disk before what makes the file a stub goes from it.
void Recall::flush() const {
    const std::string parent = std::filesystem::path(m_path).parent_path();
    const int result = m_lock.isOpen() ? ::fsync(m_lock.get())
                                       : ::syncfs(openForReading(parent.empty() ? "." : parent).get());
    if (result < 0)
        throw systemFailure("Failed to flush ", m_path, errno);
}

void Recall::putTimesBack() {
    checked(m_backEnd,
            m_backEnd.setAMCTime(m_path.c_str(), m_before.st_atime, m_before.st_mtime, m_before.st_ctime));
}

void Recall::putBack() {
    if (!m_headWritten && m_backEnd.isStub(m_path.c_str()) != 1)
        return m_observer.note(m_path + ": no stub any more, left as it is");
    if (m_backEnd.restoreDone(m_path.c_str(), false, {}) < 0)
        m_observer.failed(Failure(m_backEnd));
    if (!m_written)
        return m_observer.note(m_path + ": the stub was not touched");
    try {
        const bool isRewritten = m_kind.putBack(m_path, m_stubData, m_before.st_size);
        m_observer.note(m_path + (isRewritten ? ": the stub was put back as it was"
                                              : ": still a stub, to be recalled again"));
    } catch (const Failure& failure) {
        m_observer.failed(failure);
        m_observer.note(m_path + ": the stub could not be put back");
        return saveStubData();
    }
    putTimesBack();
}

void Recall::saveStubData() {
    try {
        m_observer.note("its stub data is in " + writeNewFile(m_path + ".stubdata.XXXXXX", m_stubData));
    } catch (const Failure& failure) {
        m_observer.failed(failure);
        m_observer.note("its stub data is: " + std::string(m_stubData.begin(), m_stubData.end()));
    }
}
