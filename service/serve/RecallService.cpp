#include "service/serve/RecallService.h"

#include "platform/files/FdPath.h"
#include "platform/logging/ProcessLog.h"
#include "platform/stub/StubAttributes.h"
#include "platform/stub/StubText.h"
#include "service/StubData.h"

#include <algorithm>
#include <cerrno>
#include <immintrin.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

/// An idle processor takes half of that to wake up, so the thread that answers looks for more before it
/// sleeps.
constexpr auto kPolling = std::chrono::microseconds(100);
constexpr int kPauses = 20;         ///< of the processor, half a microsecond
constexpr useconds_t kPause = 1000; ///< until there may be room again, in microseconds
constexpr auto kEnding = std::chrono::minutes(1);

std::string nameOf(int fd) {
    std::string path = pathBehind(fd);
    return path.empty() ? "a file without a name" : std::move(path);
}

std::string causeOf(const HeldAccess& access) {
    if (access.tid <= 0)
        return "programs that waited before";
    const CallerProgram program = programOf(access.tid);
    return program.name + " (" + std::to_string(program.process) + ")";
}

/// 1 or 0 for whether the file carries the attribute, or -1.
int carries(int fd, const char* name) {
    if (::fgetxattr(fd, name, nullptr, 0) >= 0)
        return 1;
    return errno == ENODATA || errno == EOPNOTSUPP ? 0 : -1;
}

/// Whether the file begins as a stub does. True too if that cannot be told without waiting, for the disk or
/// for whoever holds the file, as any user can as long as he likes.
bool mayHaveStubText(int fd) {
    char head[kStubTextPrefix];
    const iovec to{head, sizeof head};
    const ssize_t got = ::preadv2(fd, &to, 1, 0, RWF_NOWAIT);
    return got < 0 || beginsWithStubText({head, static_cast<size_t>(got)});
}

/// Whether somebody archives or recalls the file by hand, or has locked it for a reason of his own.
bool isLocked(int fd) {
    if (::flock(fd, LOCK_SH | LOCK_NB) < 0)
        return true;
    ::flock(fd, LOCK_UN);
    return false;
}

/// Whether somebody who holds the file is about to make a stub of it.
bool isBeingStubbed(int fd, const struct stat& st) {
    return S_ISREG(st.st_mode) && carries(fd, kStubTextAttribute) != 0 && isLocked(fd);
}

/// Whether what waits leaves too few descriptors for the recalls. To leave further events unread is no way
/// out: among them are those of the recalls' own writes.
bool isTableFull() {
    constexpr rlim_t kReserve = 1024;
    rlimit limit{};
    struct stat table {};
    return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && ::stat("/proc/self/fd", &table) == 0 &&
           static_cast<rlim_t>(table.st_size) > limit.rlim_cur - std::min(kReserve, limit.rlim_cur / 2);
}

} // namespace

RecallService::RecallService(PreContentGroup& group, ServeRules rules)
    : m_group(group), m_rules(std::move(rules)), m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_wake.isOpen())
        throw systemFailure("Failed to make an event descriptor", "", errno);
}

RecallService::~RecallService() {
    stop();
    m_watcher.request_stop();
    ::eventfd_write(m_wake.get(), 1);
    m_watcher = {}; // which may add a last line to the log
    m_logger = {};
}

void RecallService::start() {
    m_watcher = std::jthread([this](const std::stop_token& token) { watch(token); });
    m_logger = std::jthread([this](const std::stop_token& token) {
        const OwnThread own(*this);
        for (std::unique_lock lock(m_mutex);;) {
            if (!m_lineThere.wait(lock, token, [&] { return !m_lines.empty(); }))
                return;
            const std::string line = std::move(m_lines.front());
            m_lines.pop_front();
            lock.unlock();
            log(line);
            lock.lock();
        }
    });
}

void RecallService::stop() {
    {
        const std::lock_guard lock(m_mutex);
        if (m_stopping.exchange(true))
            return;
        m_stopBy = Clock::now() + kEnding;
        for (const auto& [when, stub] : std::exchange(m_later, {}))
            refuse(*stub);
        for (const Stub& stub : m_queue)
            refuse(*stub);
        m_queue.clear();
        refuseLeft(); // their stores may take their time
        m_group.heedAll();
    }
    ::eventfd_write(m_wake.get(), 1); // to look at the time from now on
    m_queued.notify_all();
    m_stopped.notify_all();
}

void RecallService::setRules(ServeRules rules) {
    const std::lock_guard lock(m_mutex);
    m_rules = std::move(rules);
    m_free = {};
    m_stopped.notify_all();
}

void RecallService::log(const std::string& text) {
    if (CLogWriterInterface* log = processLog(0))
        log->Write(0, "RecallService", 0, 0, 0, "%s", text.c_str());
}

// --- Answering ---

/// Whoever answers must not wait for the log, which may lie on the file system that is served. Of what comes
/// faster than it can be written some is left out.
void RecallService::logLater(std::string line) {
    constexpr size_t kMost = 1000;
    if (m_lines.size() < kMost)
        m_lines.push_back(std::move(line));
    m_lineThere.notify_one();
}

void RecallService::watch(const std::stop_token& token) {
    const OwnThread own(*this);
    std::vector<HeldAccess> held;
    auto last = Clock::now();
    Clock::time_point look{};
    while (!token.stop_requested()) {
        const auto now = Clock::now();
        if (m_stopping && now >= look) {
            const std::lock_guard lock(m_mutex);
            refuseLeft();
            look = now + std::chrono::seconds(1);
        }
        if (now - last >= kPolling) {
            pollfd fds[] = {{m_group.descriptor(), POLLIN, 0}, {m_wake.get(), POLLIN, 0}};
            constexpr int kSecond = 1000;
            const int ready = ::poll(fds, std::size(fds), m_stopping ? kSecond : -1);
            if (fds[1].revents != 0) {
                eventfd_t count = 0;
                ::eventfd_read(m_wake.get(), &count);
            }
            if (ready <= 0)
                continue;
        }
        held.clear();
        const int err = m_group.read(held);
        if (err == EAGAIN) { // whoever comes next needs the lock that is asked for here
            for (int i = 0; i < kPauses; ++i)
                _mm_pause();
            continue;
        }
        if (err == EMFILE || err == ENFILE) {
            {
                const std::lock_guard lock(m_mutex);
                logLater("a reader was refused: the descriptor table is full");
            }
            ::usleep(kPause);
        }
        for (const HeldAccess& access : held)
            handle(access);
        last = Clock::now();
    }
}

/// Refuses the accesses to stubs whose recall is given up.
void RecallService::refuseLeft() {
    for (const auto& each : m_stubs) {
        ServedStub& stub = *each.second;
        if (isToBeLeft(stub))
            counted(stub, [&] { stub.denyAll(EIO); });
    }
}

void RecallService::takeOver(const std::vector<int>& held) {
    for (const int fd : held)
        handle({fd, m_group.threadOf(fd), true, 0, 0});
}

void RecallService::handle(const HeldAccess& access) {
    const std::lock_guard lock(m_mutex);
    ++m_counts.accesses;
    if (isPassed(access.tid))
        return m_group.allow(access.fd);
    struct stat st {};
    if (::fstat(access.fd, &st) < 0)
        return m_group.deny(access.fd, EIO);
    const int marked = S_ISREG(st.st_mode) ? carries(access.fd, kStubMark) : 0;
    if (marked < 0)
        return m_group.deny(access.fd, EIO);
    const FileKey key{st.st_dev, st.st_ino};
    if (marked == 0 && !m_stubs.contains(key) && !isBeingStubbed(access.fd, st)) {
        ignorePlain(access.fd, st);
        letPass(access, key);
        return m_group.allow(access.fd);
    }
    handleStub(access, st);
}

/// Whoever truncates a file by its path has not opened it, so that nobody sees him until he comes to do it.
void RecallService::letPass(const HeldAccess& access, const FileKey& key) {
    constexpr size_t kMany = 64;
    if (access.isOpen || access.tid <= 0)
        return;
    if (m_passing.size() >= kMany)
        std::erase_if(m_passing, [](const auto& passing) { return !passing.second.isUnderWay(); });
    m_passing.emplace_back(key, PassingCall::of(access.tid));
}

/// A file that is being archived is a stub soon. Whoever archives it asks to heed it after that shows. One
/// that is being made may be the copy of a stub, whose mark comes last: whoever opens it next is asked for,
/// and whoever makes it is not held up.
void RecallService::ignorePlain(int fd, const struct stat& st) {
    if (m_stopping) // nobody can tell of files any more
        return;
    const bool isRegular = S_ISREG(st.st_mode);
    const bool isBegun = isRegular && st.st_blocks == 0;
    if (!isRegular || (carries(fd, kStubTextAttribute) == 0 && (isBegun || !mayHaveStubText(fd))))
        m_group.ignore(fd, isBegun ? PreContentGroup::Ignored::Accesses : PreContentGroup::Ignored::All);
}

void RecallService::handleStub(const HeldAccess& access, const struct stat& st) {
    const Need need = needOf(access, false);
    if (need == Need::Nothing)
        return m_group.allow(access.fd);
    if (need == Need::Refused)
        return m_group.deny(access.fd, EIO);
    if (m_stopping)
        return m_group.deny(access.fd, EIO);
    if (isTableFull()) {
        logLater("refused " + causeOf(access) + ", as too many others wait: " + nameOf(access.fd));
        return m_group.deny(access.fd, EIO);
    }
    const FileKey key{st.st_dev, st.st_ino};
    Stub& stub = m_stubs[key];
    if (!stub) {
        stub = std::make_shared<ServedStub>(m_group, key, nameOf(access.fd), causeOf(access));
        m_queue.push_back(stub);
        m_queued.notify_one();
    }
    counted(*stub, [&] { stub->add(access, need); });
}

/// Keeps count of who waits while `act` changes it.
void RecallService::counted(ServedStub& stub, const std::function<void()>& act) {
    m_counts.waiting -= stub.waiting();
    act();
    m_counts.waiting += stub.waiting();
}

Need RecallService::needOf(const HeldAccess& access, bool isHeld) {
    const CallerWants wants = wantsOf(access.tid);
    if (wants == CallerWants::Unclear)
        return Need::Unclear;
    struct stat st {};
    if (::fstat(access.fd, &st) < 0)
        return Need::Ended;
    // To truncate an empty stub changes nothing that shows, and one with a kept text would pass for what a
    // recall or stubbing has left.
    if (wants == CallerWants::Truncate && access.isOpen)
        return st.st_size > 0 && carries(access.fd, kStubTextAttribute) == 0 &&
                       (isHeld || !isLocked(access.fd))
                   ? Need::Truncate
                   : Need::Ended;
    const bool anyRules = !m_rules.refusePrograms.empty() || !m_rules.rangePrograms.empty();
    const CallerProgram program = anyRules ? programOf(access.tid) : CallerProgram{};
    // An empty file has mostly been truncated just now, and will be filled by whoever did so.
    if (st.st_size > 0 && !m_rules.refusePrograms.empty() &&
        m_rules.isRefused(program, controlGroupOf(access.tid))) {
        ++m_counts.refused;
        logLater("refused " + causeOf(access) + ": " + nameOf(access.fd));
        return Need::Refused;
    }
    if (wants != (access.isOpen ? CallerWants::OpenRead : CallerWants::Read))
        return Need::Ended;
    if (!m_rules.isByRange(program, static_cast<std::uint64_t>(st.st_size)))
        return Need::Data;
    return access.isOpen ? Need::Nothing : Need::Range;
}

/// Called by whoever holds the file.
void RecallService::reconsider(ServedStub& stub) {
    counted(stub,
            [&] { stub.reconsider([this](const HeldAccess& access) { return needOf(access, true); }); });
}

ServeStatus RecallService::status() const {
    const std::lock_guard lock(m_mutex);
    ServeStatus status = m_counts;
    status.queued = m_queue.size() + m_later.size();
    status.stubs = m_stubs.size();
    const auto now = Clock::now();
    const auto describe = [&](const ServedStub& stub) {
        return ServeStatus::Running{stub.name(), stub.cause(), stub.waiting(), stub.bytes(),
                                    std::chrono::duration<double>(now - stub.since()).count()};
    };
    constexpr size_t kMost = 1000; // more would hold up those who read
    for (const auto& [key, stub] : m_stubs)
        if (status.running.size() < kMost || stub->bytes() > 0)
            status.running.push_back(describe(*stub));
    std::ranges::sort(status.running, std::greater{}, &ServeStatus::Running::seconds);
    return status;
}
