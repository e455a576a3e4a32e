#include "service/StubWorker.h"

#include "service/ArchivedCopy.h"
#include "service/FileIo.h"

std::string StubWorker::reasonToSkip(const FileLook& look) {
    if (!m_rules.isList)
        return {};
    if (look.state == FileState::Stub || look.state == FileState::ChangedStub)
        return "it is a stub already";
    const bool isPlain = look.state == FileState::Plain || look.state == FileState::Leftover;
    if (isPlain && !m_rules.force && !wouldFreeRoom(look.st))
        return "it would free no room";
    if (!m_seen.isNew(look.st))
        return SeenFiles::kReason;
    return {};
}

bool StubWorker::isFull() const {
    constexpr size_t kMostCopies = 64; // which are open besides the descriptors of each file
    return StubbingWorker::isFull() || m_copies.size() >= kMostCopies;
}

void StubWorker::begin(std::unique_ptr<StubJob>& job) {
    const OpenFile& file = job->file();
    if (!S_ISREG(job->look().st.st_mode))
        throw Failure(QZHSM_FAILURE, "Not stubbing special file " + file.name());
    const std::string reason = reasonToSkip(job->look());
    if (!reason.empty())
        return m_observer.skipped(file.name(), reason);
    m_observer.started(file.name(), job->look().st.st_size);
    job->hold();
    UniqueFd copy;
    if (m_rules.copyOf)
        copy = requireSameCopy(job->data(), file, job->look(), m_rules.copyOf(file));
    job->prepare(m_rules.meta, m_rules.refTime);
    if (!m_rules.force && !wouldFreeRoom(job->look().st))
        throw Failure(QZHSM_FAILURE, "Not stubbing " + file.name() + ": it would free no room",
                      "With --force it is stubbed all the same.");
    if (copy.isOpen())
        m_copies.push_back(std::move(copy));
    m_batch.add(std::move(job), 0); // there is next to nothing to flush
}

void StubWorker::finish() {
    std::vector<Flushable> copies;
    for (const UniqueFd& copy : m_copies) {
        struct stat st {};
        ::fstat(copy.get(), &st);
        copies.push_back({copy.get(), st.st_dev});
    }
    try {
        flushAll(copies);
    } catch (const Failure& failure) {
        m_batch.giveUpAll(failure);
    }
    m_copies.clear();
    makeStubs();
    m_batch.finish([this](const StubJob& job) {
        m_observer.bytes(job.look().st.st_size);
        m_observer.done(job.file().name(), "stubbed");
    });
}
