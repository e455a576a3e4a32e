#include "service/serve/RecallRunner.h"

#include "service/Flush.h"
#include "service/Repair.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <future>
#include <iterator>
#include <new>
#include <thread>

namespace {

/// Tells the log what a recall meets.
class LogObserver final : public Observer {
public:
    explicit LogObserver(std::function<void(long long)> onBytes) : m_onBytes(std::move(onBytes)) {}

    void bytes(long long count) override { m_onBytes(count); }
    void failed(const std::string&, const Failure& failure) override { RecallService::log(failure.what()); }
    void note(const std::string& text) override { RecallService::log(text); }

private:
    std::function<void(long long)> m_onBytes;
};

void flush(const RecallJob& job) {
    flushOne(job.flushable(), job.file().name());
}

/// Nobody gets a lease on what is open for writing; whoever had one would hold up the thread that writes.
UniqueFd keepLeasesAway(const OpenFile& file) {
    UniqueFd writable(::open(file.path().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!writable.isOpen() && errno == EWOULDBLOCK)
        throw Failure(QZHSM_BUSY, "Somebody holds a lease on " + file.name());
    return writable; // for any other reason the recall's own writes fail too
}

} // namespace

/// One recall, which can be left and gone on with, by any thread.
class RecallRunner::Recall final : public SuspendedRecall {
public:
    Recall(RecallService& service, RecallService::Stub stub, std::shared_ptr<DriverlessBackEnd> backEnd,
           OpenFile file, UniqueFd leaseless)
        : m_service(service), m_stub(std::move(stub)), m_leaseless(std::move(leaseless)),
          m_backEnd(std::move(backEnd)), m_job(*m_backEnd->kind, std::move(file), false, m_observer) {}

    const RecallService::Stub& stub() const { return m_stub; }

    /// Whether there is anything to bring.
    bool hold(UniqueFd held, FileLook look) {
        const bool isToRecall = m_job.hold(std::move(held), std::move(look)) == RecallJob::Held::ToRecall;
        if (!isToRecall)
            m_leaseless = UniqueFd();
        return isToRecall;
    }

    void begin(NamedStores& stores) {
        const StubMetadata metadata = readMetadata(m_job.file(), m_job.look());
        Store& store = stores.find(metadata);
        auto source =
            std::make_unique<StoreSource>(store, findRecord(store, metadata, m_job.file(), m_job.look()),
                                          [this] { return m_service.isInterrupted(*m_stub); });
        m_source = source.get();
        m_service.begin(*m_stub, m_source->pieces(), kPieceSize);
        m_begun = true;
        m_job.begin(std::move(source));
        std::future<void> flushed = std::async([this] { flush(m_job); });
        if (m_job.isKept()) { // what comes first is read meanwhile
            const std::optional<std::uint64_t> first = m_service.wanted(*m_stub, 0);
            m_next = first.value_or(0);
            if (first)
                m_read = m_source->read(m_next);
        }
        flushed.get();
        if (m_job.isKept())
            m_job.beginPieces();
    }

    /// False if it came to its end, true if others are more urgent.
    bool goOn() {
        if (m_job.isKept()) {
            if (bringPieces())
                return true;
        } else { // in an order that no kill can hurt
            m_job.writeRest();
            flush(m_job);
            m_job.writePage();
        }
        flush(m_job);
        // This moves the change time, which programs such as tar take for a change of what they read.
        m_job.end();
        m_leaseless = UniqueFd(); // what is open for writing cannot be executed
        m_service.settle(*m_stub);
        flush(m_job);
        return false;
    }

    void giveUp(const Failure& failure) {
        if (m_begun)
            m_job.putBack(failure, !m_service.takeBack(*m_stub));
        m_service.fail(m_stub, failure);
    }

private:
    bool bringPieces() {
        while (const std::optional<std::uint64_t> piece = m_service.wanted(*m_stub, m_next)) {
            if (m_service.isLessUrgent(*m_stub)) { // and there may be many of them
                m_read = {};
                m_source->pause();
                return true;
            }
            std::span<const char> bytes = std::exchange(m_read, {});
            if (bytes.empty() || *piece != m_next)
                bytes = m_source->read(*piece);
            const long long offset = static_cast<long long>(*piece) * static_cast<long long>(kPieceSize);
            m_job.writePiece(bytes, offset);
            m_service.fill(*m_stub, *piece);
            std::this_thread::yield(); // to whoever was answered: not each kernel interrupts what follows
            m_job.startWriting(offset, bytes.size());
            count(bytes.size());
            m_next = *piece + 1;
        }
        return false;
    }

    void count(std::uint64_t bytes) { m_service.count(*m_stub, bytes, m_source->takeMoved()); }

    RecallService& m_service;
    RecallService::Stub m_stub;
    UniqueFd m_leaseless;
    LogObserver m_observer{[this](long long bytes) {
        if (!m_job.isKept()) // else those who wait for the piece come first
            count(static_cast<std::uint64_t>(bytes));
    }};
    std::shared_ptr<DriverlessBackEnd> m_backEnd;
    RecallJob m_job;
    StoreSource* m_source = nullptr; ///< the job's
    std::uint64_t m_next = 0;        ///< the piece to be written, if no other one is waited for
    std::span<const char> m_read{};  ///< that piece, if it was read already
    bool m_begun = false;
};

RecallRunner::RecallRunner(RecallService& service, NamedStores& stores)
    : m_service(service), m_own(std::make_shared<DriverlessBackEnd>()), m_stores(stores) {}

void RecallRunner::run() {
    const RecallService::OwnThread own(m_service);
    while (true) {
        RecallService::Work work = m_service.next();
        if (!work.stub)
            return;
        if (work.recall)
            goOn(std::unique_ptr<Recall>(static_cast<Recall*>(work.recall.release())));
        else
            serve(work.stub);
    }
}

void RecallRunner::serve(const RecallService::Stub& stub) {
    UniqueFd fd(::fcntl(stub->fd(), F_DUPFD_CLOEXEC, 0));
    const std::string& name = stub->name();
    try {
        if (!fd.isOpen())
            throw systemFailure("Failed to open ", name, errno);
        const OpenFile file = OpenFile::ofReadable(std::move(fd), name);
        try {
            serve(stub, file);
        } catch (const Failure& failure) {
            // Whoever archives or recalls the file by hand is waited for.
            if (failure.code() != QZHSM_BUSY || !m_service.postpone(stub, file.stat().st_blocks))
                throw;
        }
    } catch (const Failure& failure) {
        m_service.fail(stub, failure);
    } catch (const std::bad_alloc&) {
        m_service.fail(stub, systemFailure("Failed to recall ", name, ENOMEM));
    }
}

/// Throws only what came before the recall.
void RecallRunner::serve(const RecallService::Stub& stub, const OpenFile& file) {
    UniqueFd lock = kind().hold(file); // until readers go on: to be archived again would change what they see
    UniqueFd leaseless = keepLeasesAway(file);
    FileLook look = kind().look(file, true);
    if (settle(file, look)) {
        leaseless = UniqueFd();
        return m_service.done(stub, false);
    }
    const RecallService::Start start = m_service.mayBegin(stub);
    if (start == RecallService::Start::Later)
        throw Failure(QZHSM_BUSY, "Somebody is truncating " + file.name());
    if (start == RecallService::Start::Never)
        return;
    auto recall = std::make_unique<Recall>(
        m_service, stub, m_own,
        OpenFile::ofReadable(UniqueFd(::fcntl(file.fd(), F_DUPFD_CLOEXEC, 0)), file.name()),
        std::move(leaseless));
    if (!recall->hold(std::move(lock), std::move(look))) // and locked, until nobody asks for it any more
        return m_service.done(stub, false);
    RecallService::log("recalling " + file.name() + " for " + stub->cause());
    bool isBegun = false;
    guarded(*recall, [&] {
        recall->begin(m_stores);
        isBegun = true;
    });
    if (isBegun)
        goOn(std::move(recall));
}

/// What users did wins. True if the file is none to recall.
bool RecallRunner::settle(const OpenFile& file, const FileLook& look) {
    switch (look.state) {
    case FileState::Plain:
    case FileState::Leftover:
    case FileState::Copy:
        return true;
    case FileState::MarkedWhole: // somebody has written a file of his own over it
        makePlain(kind(), file, look);
        return true;
    case FileState::Lost: // tools keep the text when they empty a file: users have done this
        if (look.st.st_size > 0)
            break;
        makePlain(kind(), file, look);
        return true;
    default:
        break;
    }
    return false;
}

template <class Act>
void RecallRunner::guarded(Recall& recall, Act act) {
    try {
        act();
    } catch (const Failure& failure) {
        recall.giveUp(failure);
    } catch (const std::bad_alloc&) {
        recall.giveUp(systemFailure("Failed to recall ", recall.stub()->name(), ENOMEM));
    }
}

void RecallRunner::goOn(std::unique_ptr<Recall> recall) {
    const RecallService::Stub stub = recall->stub();
    guarded(*recall, [&] {
        if (recall->goOn()) {
            m_own = std::make_shared<DriverlessBackEnd>(); // no other thread's at the same time
            return m_service.suspend({stub, std::move(recall)});
        }
        m_service.done(stub, true);
        RecallService::log("recalled " + stub->name());
    });
}
