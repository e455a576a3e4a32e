#include "service/StubJob.h"

#include "service/FileIo.h"
#include "service/FileRights.h"
#include "service/Flush.h"
#include "service/NotedObject.h"
#include "service/StubData.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <thread>
#include <unistd.h>
#include <utility>

StubJob::StubJob(StubKind& kind, OpenFile file)
    : m_kind(kind), m_file(std::move(file)), m_look(kind.look(m_file)) {}

void StubJob::hold() {
    // A service that has just recalled the file may be at its last flush.
    constexpr int kPatience = 50;
    m_flushable =
        m_kind.waitForHold(m_file, [this](int pauses) { return m_kind.announces() && pauses < kPatience; });
    m_data = openData();
    // Before the lease: a page mapped until then may be written to, and show no time.
    m_look.st = m_file.stat();
    requireClosed();
    if (m_look.attributes)
        m_object = notedObject(m_file);
    m_isNoted = m_object.has_value();
}

void StubJob::prepare(const std::string& meta, std::optional<std::time_t> refTime) {
    requireUnchanged(m_look.st);
    m_meta = meta;
    m_text = stubTextOf(meta, m_look.st.st_size); // empty if there is none; the back-end says so
    m_refTime = refTime.value_or(m_look.st.st_mtime);
    m_capabilities = readCapabilities(m_file);
    m_kind.beforeStubbing(m_kind.pathOf(m_file), meta, m_look.st);
    // Without attributes that look has put times back, to the second, which shows in the change time.
    m_since = m_file.stat();
    if (m_look.attributes && m_kind.keepsTextInFile())
        requireUnchanged(m_look.st);
    if (m_since.st_size != m_look.st.st_size || m_since.st_mtim.tv_sec != m_look.st.st_mtim.tv_sec)
        throw changed();
}

void StubJob::keep() {
    requireUnchanged(m_since);
    m_keepBegan = true;
    // The text or the note names the object at any moment, for whoever looks which are in use.
    keepText(m_text, m_look.st.st_size);
    if (m_isNoted)
        dropNotedObject(m_file);
    const struct stat now = m_file.stat(); // the change time is ours now
    if (!hasSameData(now, m_since))
        throw changed();
    m_since = now;
}

void StubJob::stub() {
    requireUnchanged(m_since);
    requireClosed();
    const std::string path = m_kind.pathOf(m_file);
    const auto& st = m_look.st;
    make(path, [&] { return m_kind.stub(path, m_meta, m_refTime, st.st_size); });
    if (!m_kind.keepsTextInFile())
        return;
    putRightsBack(m_file, m_capabilities, st);
    putTimesBack(m_file, st.st_atim, st.st_mtim);
}

void StubJob::end() {
    // A truncation that began while the file had its data may have cut the text.
    if (m_kind.keepsTextInFile() &&
        m_file.stat().st_size != std::max(m_size, static_cast<long long>(m_text.size())))
        throw Failure(QZHSM_BUSY, m_file.name() + " was truncated while it was stubbed",
                      "\"qzhsm recall\" brings its data back.");
    dropText();
}

void StubJob::dropText() {
    if (m_kind.keepsTextInFile())
        dropKeptText(m_file);
}

/// What is in a store need not be sent again, if it is still the file's data.
void StubJob::giveUp() {
    if (!m_keepBegan || m_isMade)
        return;
    try {
        dropText();
        if (hasSameData(m_file.stat(), m_look.st))
            note();
        flush();
    } catch (const Failure&) { // the one before is told
    }
}

void StubJob::note() {
    if (m_look.attributes && m_object)
        noteObject(m_file, *m_object);
}

void StubJob::flush() const {
    flushOne(flushable(), m_file.name());
}

void StubJob::keepText(std::string text, long long size) {
    m_text = std::move(text);
    m_size = size;
    if (!m_kind.keepsTextInFile() || m_text.empty())
        return;
    const KeptText kept{m_text, false, m_look.st.st_mtim};
    m_isKept = ::keepText(m_file, kept);
    if (!m_isKept && m_isNoted) { // there may be room for one of them
        dropNotedObject(m_file);
        m_isKept = ::keepText(m_file, kept);
    }
    if (!m_kind.announces())
        return;
    if (!m_isKept) // the service could take it for a file that stays as it is
        throw Failure(QZHSM_FAILURE,
                      "Not stubbing " + m_file.name() +
                          ": its attributes have no room for the stub text, and a recall service is at work");
    m_kind.announce(m_file.fd());
}

void StubJob::make(const std::string& path, const std::function<int()>& act) {
    if (!m_kind.keepsTextInFile())
        m_data = UniqueFd();             // Lustre releases nothing that is open
    m_isMade = m_kind.keepsTextInFile(); // unless a look tells that it is not
    if (act() < 0) {
        const Failure failure = m_kind.lastFailure(path);
        if (!m_kind.keepsTextInFile())
            throw Failure(failure);
        if (!isEmptied()) {
            m_isMade = false;
            // Refused, perhaps after the file was marked. It was no stub before, which was looked at; but a
            // mark that was there already is not ours.
            if (failure.code() != EEXIST)
                m_kind.backEnd().restoreDone(path.c_str(), true, {});
            throw Failure(failure);
        }
    }
    m_isMade = true;
    // A service that has begun meanwhile could not see what the file was about to become.
    if (!m_isKept && m_kind.announces())
        m_kind.announce(m_file.fd());
    if (m_kind.keepsTextInFile())
        try {
            completeText();
        } catch (const Failure& failure) {
            throw Failure(failure.code(),
                          m_file.name() +
                              " was emptied, and its stub text could not be written: " + failure.what(),
                          m_isKept ? "\"qzhsm repair\" writes it." : "Its metadata was " + m_meta);
        }
    m_kind.afterStubbing(path);
}

/// One open file for all, as a second one would be "somebody else" to the lease.
UniqueFd StubJob::openData() const {
    struct stat held {};
    if (::fstat(m_flushable.get(), &held) == 0 && isSameFile(held, m_look.st))
        return UniqueFd(::fcntl(m_flushable.get(), F_DUPFD_CLOEXEC, 0));
    if (m_look.state != FileState::Plain) // to open a stub could be to recall it
        return UniqueFd();
    return m_file.open(O_RDONLY | O_NONBLOCK);
}

/// A write lease is given only if nobody else has the file open. It is given back at once: to whoever opens
/// the file a lease that is held is a pause of up to 45 seconds. Whoever opens it just then has the kernel
/// send a signal: by default one that ends the process, so another, which does nothing.
void StubJob::requireClosed() const {
    if (!m_data.isOpen())
        return;
    constexpr auto kPause = std::chrono::milliseconds(1);
    constexpr int kPatience = 50;
    ::fcntl(m_data.get(), F_SETSIG, SIGURG);
    const auto lease = [this] { return ::fcntl(m_data.get(), F_SETLEASE, F_WRLCK) == 0 ? 0 : errno; };
    int err = lease();
    // A service that has let us open the file closes it a moment later.
    for (int i = 0; err == EAGAIN && i < kPatience && m_kind.announces(); ++i) {
        std::this_thread::sleep_for(kPause);
        err = lease();
    }
    if (err == EAGAIN)
        throw Failure(QZHSM_BUSY, m_file.name() + " is open elsewhere");
    if (err == EACCES)
        throw systemFailure("Failed to see whether others use a file of another user: ", m_file.name(), err);
    if (err == 0 && ::fcntl(m_data.get(), F_SETLEASE, F_UNLCK) < 0)
        throw systemFailure("Failed to give back the lease on ", m_file.name(), errno);
}

void StubJob::requireUnchanged(const struct stat& since) const {
    if (!isUntouched(m_file.stat(), since))
        throw changed();
}

Failure StubJob::changed() const {
    return {QZHSM_BUSY, m_file.name() + " was changed while it was archived"};
}

bool StubJob::isEmptied() const {
    const FileLook now = m_kind.look(m_file, true);
    switch (now.state) {
    case FileState::Emptied:
    case FileState::Stub:
    case FileState::ChangedStub:
        return true;
    case FileState::Lost:
        return !now.holdsData;
    default: // without attributes a file that has been emptied looks like any other
        return !now.attributes && now.st.st_blocks < m_look.st.st_blocks;
    }
}

/// What stands in the file now is looked at, and mended if it is not the whole text: a full disk or a short
/// write may have left less.
void StubJob::completeText() const {
    std::string found(m_text.size(), '\0');
    const ssize_t got = ::pread(m_data.get(), found.data(), found.size(), 0);
    const bool isWhole = got == static_cast<ssize_t>(m_text.size()) && found == m_text &&
                         m_file.stat().st_size == std::max<off_t>(m_size, got);
    if (!isWhole)
        m_kind.putBack(m_file.path(), {m_text.begin(), m_text.end()}, m_size);
}
