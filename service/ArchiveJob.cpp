#include "service/ArchiveJob.h"

#include "platform/stub/StubText.h"
#include "service/FileIo.h"
#include "service/FileRights.h"
#include "service/NotedObject.h"
#include "service/Repair.h"
#include "service/stores/StubMetadata.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

bool isSameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::string stubText(const std::string& meta, long long size) {
    const int length = qzhsm_meta2stub(meta.c_str(), size, nullptr, 0);
    if (length < 0)
        return {};
    std::string text(static_cast<size_t>(length), '\0');
    qzhsm_meta2stub(meta.c_str(), size, text.data(), length);
    return text;
}

} // namespace

ArchiveJob::ArchiveJob(StubKind& kind, OpenFile file)
    : m_kind(kind), m_file(std::move(file)), m_look(kind.look(m_file)) {}

void ArchiveJob::put(Store& store, const OnBytes& onBytes) {
    m_flushable = m_kind.hold(m_file);
    m_data = openData();
    requireClosed();
    const ObjectRecord facts = ObjectRecord::describe(m_data.get(), m_file.name());
    if (!facts.owner.matches(facts.owner))
        throw Failure(QZHSM_FAILURE,
                      m_file.name() +
                          " could not be told from a copy later: its file system has no file handles");
    m_look.st = m_file.stat();
    m_noted = notedObject(m_file);
    const auto known = m_noted ? findArchived(store, *m_noted, m_data.get(), facts) : std::nullopt;
    m_record = known ? *known : store.put(m_data.get(), facts, onBytes);
    try {
        requireUnchanged(m_look.st);
        m_meta = StubMetadata(store, m_record).toText() + ";" + kModified + std::to_string(m_record.mtime);
        m_text = stubText(m_meta, m_look.st.st_size);
        m_kind.beforeStubbing(m_kind.pathOf(m_file), m_meta, m_look.st);
        // Without attributes that look has put times back, to the second, which shows in the change time.
        m_since = m_file.stat();
        if (m_since.st_size != m_look.st.st_size || m_since.st_mtim.tv_sec != m_look.st.st_mtim.tv_sec)
            throw changed();
    } catch (...) {
        if (!known)
            store.remove(m_record.object);
        throw;
    }
}

void ArchiveJob::note() {
    if (m_look.attributes)
        noteObject(m_file, m_record.object);
}

void ArchiveJob::keep() {
    requireUnchanged(m_since);
    if (m_noted)
        dropNotedObject(m_file);
    if (m_kind.keepsTextInFile())
        keepText(m_file, {m_text, false});
    m_since = m_file.stat();
}

void ArchiveJob::stub() {
    try {
        requireUnchanged(m_since);
        requireClosed();
    } catch (const Failure&) {
        end();
        throw;
    }
    QZHSMLowLevel& backEnd = m_kind.backEnd();
    const std::string path = m_kind.pathOf(m_file);
    const auto& st = m_look.st;
    if (backEnd.stubFile(path.c_str(), m_meta.c_str(), st.st_mtim.tv_sec, st.st_size) < 0) {
        const Failure failure = m_kind.lastFailure(path);
        if (!isEmptied()) { // refused: nothing of the data is gone
            putBackMark();
            throw Failure(failure);
        }
    }
    if (m_kind.keepsTextInFile())
        completeText();
    m_kind.afterStubbing(path);
    putRightsBack(m_file, m_record.capability, st.st_mode);
    putTimesBack(m_file, st.st_atim, st.st_mtim);
}

void ArchiveJob::end() {
    if (m_kind.keepsTextInFile())
        dropKeptText(m_file);
}

/// One open file for all, as a second one would be "somebody else" to the lease.
UniqueFd ArchiveJob::openData() const {
    struct stat held {};
    if (::fstat(m_flushable.get(), &held) == 0 && isSameFile(held, m_look.st))
        return UniqueFd(::fcntl(m_flushable.get(), F_DUPFD_CLOEXEC, 0));
    return m_file.open(O_RDONLY | O_NONBLOCK);
}

/// A write lease is given only if nobody else has the file open. It is given back at once: to whoever opens
/// the file a lease that is held is a pause of up to 45 seconds.
void ArchiveJob::requireClosed() const {
    if (::fcntl(m_data.get(), F_SETLEASE, F_WRLCK) == 0)
        ::fcntl(m_data.get(), F_SETLEASE, F_UNLCK);
    else if (errno == EAGAIN)
        throw Failure(QZHSM_BUSY, m_file.name() + " is open elsewhere");
}

void ArchiveJob::requireUnchanged(const struct stat& since) const {
    const struct stat now = m_file.stat();
    if (now.st_size != since.st_size || !isSameTime(now.st_mtim, since.st_mtim) ||
        !isSameTime(now.st_ctim, since.st_ctim))
        throw changed();
}

Failure ArchiveJob::changed() const {
    return {QZHSM_BUSY, m_file.name() + " was changed while it was archived"};
}

/// Whether stubbing that failed has given the data up.
bool ArchiveJob::isEmptied() {
    const FileLook now = m_kind.look(m_file, true);
    switch (now.state) {
    case FileState::Emptied:
    case FileState::Lost:
    case FileState::Stub:
    case FileState::ChangedStub:
        return true;
    default: // without attributes a file that has been emptied looks like any other
        return !now.attributes && now.st.st_blocks < m_since.st_blocks;
    }
}

/// A refusal may come after the file was marked. It was no stub before, which was looked at. What is in the
/// store need not be sent again.
void ArchiveJob::putBackMark() {
    m_kind.backEnd().restoreDone(m_kind.pathOf(m_file).c_str(), true, {});
    end();
    note();
}

/// What stands in the file now is looked at, and mended if it is not the whole text: a full disk or a short
/// write may have left less.
void ArchiveJob::completeText() {
    std::string found(m_text.size(), '\0');
    const ssize_t got = ::pread(m_data.get(), found.data(), found.size(), 0);
    const bool isWhole = got == static_cast<ssize_t>(m_text.size()) && found == m_text &&
                         m_file.stat().st_size == std::max<off_t>(m_look.st.st_size, got);
    if (!isWhole)
        m_kind.putBack(m_file.path(), {m_text.begin(), m_text.end()}, m_look.st.st_size);
}
