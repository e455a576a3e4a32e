#include "platform/stub/StubText.h"
#include "tools/qzhsm/BackEnds.h"
#include "tools/qzhsm/FileIo.h"
#include "tools/qzhsm/Progress.h"
#include "tools/qzhsm/StubData.h"
#include "tools/qzhsm/Verbs.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/file.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t kPiece = size_t{1} << 20;
constexpr const char* kHoldsNoData = " is a stub or the copy of one: it holds no data";

volatile std::sig_atomic_t interrupted = 0;

/// While it lives, the signals that ask the tool to stop are noted, and cut a waiting read short.
class NoteSignals {
public:
    NoteSignals() {
        struct sigaction note {};
        note.sa_handler = [](int) { interrupted = 1; };
        for (auto& [signal, before] : m_signals) {
            ::sigaction(signal, nullptr, &before);
            if (before.sa_handler != SIG_IGN)
                ::sigaction(signal, &note, nullptr);
        }
    }
    NoteSignals(const NoteSignals&) = delete;
    NoteSignals& operator=(const NoteSignals&) = delete;
    ~NoteSignals() {
        for (const auto& [signal, before] : m_signals)
            ::sigaction(signal, &before, nullptr);
    }

private:
    std::pair<int, struct sigaction> m_signals[3] = {{SIGINT, {}}, {SIGTERM, {}}, {SIGHUP, {}}};
};

void stopWhereInterrupted() {
    if (interrupted)
        throw Failure(QZHSM_FAILURE, "Recall interrupted");
}

/// A file open for transparent writing.
class TransparentFile {
public:
    TransparentFile(QZHSMLowLevel& backEnd, std::string path, int flags)
        : m_backEnd(backEnd), m_path(std::move(path)) {
        checked(backEnd, backEnd.openFileTrans(m_path.c_str(), flags, 0));
    }
    TransparentFile(const TransparentFile&) = delete;
    TransparentFile& operator=(const TransparentFile&) = delete;
    ~TransparentFile() {
        if (m_open)
            m_backEnd.closeFileTrans();
    }

    /// Says where the bytes go in both ways, since the extent variant goes by the offset, others by the
    /// position.
    void write(const std::vector<char>& bytes, long long offset) {
        if (m_backEnd.seekFileTrans(offset, SEEK_SET) < 0)
            throw Failure(m_backEnd);
        for (size_t done = 0; done < bytes.size();) {
            const int remaining = static_cast<int>(bytes.size() - done);
            const int written =
                checked(m_backEnd, m_backEnd.writeFileTrans(bytes.data() + done, remaining,
                                                            offset + static_cast<long long>(done)));
            if (written == 0)
                throw Failure(QZHSM_FAILURE, "Failed to write all data into " + m_path);
            done += static_cast<size_t>(written);
        }
    }
    void close() {
        m_open = false;
        checked(m_backEnd, m_backEnd.closeFileTrans());
    }

private:
    QZHSMLowLevel& m_backEnd;
    std::string m_path;
    bool m_open = true;
};

/// Where the data comes from.
struct Source {
    std::string name;
    UniqueFd file;
    std::optional<long long> size; ///< where it is known
    bool isStub = false;
};

std::vector<char> headOf(int fd) {
    std::vector<char> head(kStubTextPrefix);
    const ssize_t got = ::pread(fd, head.data(), head.size(), 0);
    head.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return head;
}

/// The driver makes a file beside the stub, on the same file system: not beside a link to it.
std::string pathToOpen(QZHSMLowLevel& backEnd, const std::string& path) {
    if (!asksDriver(backEnd))
        return path;
    std::string real = std::filesystem::canonical(path);
    requirePath(backEnd, real);
    return real;
}

class Recall {
public:
    Recall(QZHSMLowLevel& backEnd, Report& report, const std::string& path, bool force)
        : m_backEnd(backEnd), m_report(report), m_path(path), m_force(force) {
        if (asLustre(backEnd))
            throw Failure(QZHSM_NOT_IMPLEMENTED, "Nothing but Lustre recalls " + path,
                          "It does so when the file is read, or by \"lfs hsm_restore\".");
        m_before = statFollowing(path);
        if (keepsTextInFile(backEnd) && S_ISREG(m_before.st_mode)) {
            lock();
            m_before = statFollowing(path); // another recall may have ended just now
        }
        if (!isStubFile(backEnd, path, m_before))
            throw Failure(QZHSM_NOT_A_STUB, path + " is not a stub", adviceToWatch(backEnd, path));
    }

    Source open(const std::string& from) {
        const bool isInput = from == "-";
        Source source{isInput ? "standard input" : from,
                      isInput ? UniqueFd(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)) : openForReading(from),
                      {}};
        struct stat st {};
        if (::fstat(source.file.get(), &st) < 0)
            throw systemFailure("Failed to stat ", source.name, errno);
        if (S_ISDIR(st.st_mode))
            throw systemFailure("Failed to read from ", source.name, EISDIR);
        if (isSameFile(st, m_before))
            throw Failure(QZHSM_FAILURE, source.name + " is the stub itself");
        if (S_ISREG(st.st_mode) && !isInput) {
            source.size = st.st_size;
            source.isStub = (asksDriver(m_backEnd) && isStubFile(m_backEnd, from, st)) ||
                            beginsWithStubText(headOf(source.file.get()));
        }
        return source;
    }

    void run(const Source& source) {
        if (m_backEnd.backupStub(m_path.c_str(), m_stubData) < 0)
            throw Failure(m_backEnd.m_errorCode, m_backEnd.m_errorText, adviceOnMark());
        const std::optional<StubFacts> facts = readFacts(m_stubData);
        const std::string problem = misfit(facts, m_before.st_size);
        if (!problem.empty())
            suspect(m_path + " was changed since it was stubbed: " + problem);
        m_recorded = facts ? facts->fileSize : 0;
        if (source.isStub)
            suspect(source.name + kHoldsNoData);
        if (source.size)
            examineLength(*source.size, source.name);
        // To shorten a stub would be to recall it where the driver watches.
        const bool shortenLast = asksDriver(m_backEnd);
        long long written = 0;
        putTimesBack(); // who may not do that could not end the recall
        const NoteSignals signals;
        try {
            written = write(source);
            if (!shortenLast)
                shorten(written);
            finish();
        } catch (const Failure& failure) {
            m_report.failure(failure);
            return putBack();
        }
        if (shortenLast && shorten(written))
            putTimesBack();
    }

private:
    /// Two recalls at once would each take the other's beginnings for the stub's.
    void lock() {
        m_lock = openForReading(m_path);
        if (::flock(m_lock.get(), LOCK_EX | LOCK_NB) < 0 && errno == EWOULDBLOCK)
            throw Failure(QZHSM_BUSY, "Another recall of " + m_path + " is under way");
    }

    std::string adviceOnMark() const {
        return keepsTextInFile(m_backEnd) ? "It is marked, but has no stub text: a recall may have been "
                                            "killed at its end. If it is whole, "
                                            "\"setfattr -x user.NkStubFile " +
                                                m_path + "\" makes it an ordinary file."
                                          : "";
    }

    /// The data goes to the disk before what makes the file a stub goes from it.
    void flush() const {
        const std::string parent = std::filesystem::path(m_path).parent_path();
        const UniqueFd directory(
            ::open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if ((m_lock.isOpen() ? ::fsync(m_lock.get()) : ::syncfs(directory.get())) < 0)
            throw systemFailure("Failed to flush ", m_path, errno);
    }

    /// The first piece is written last: until then the stub's header stands, and whatever ends the tool
    /// before leaves a stub that can be recalled again.
    long long write(const Source& source) {
        const auto next = [&] {
            std::vector<char> piece = readUpTo(source.file.get(), kPiece, source.name, stopWhereInterrupted);
            stopWhereInterrupted();
            return piece;
        };
        Progress progress;
        TransparentFile file(m_backEnd, pathToOpen(m_backEnd, m_path), O_WRONLY);
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
                progress.bytes(total, source.size.value_or(0));
            }
        }
        progress.clear();
        if (!source.size && beginsWithStubText(first))
            suspect(source.name + kHoldsNoData);
        examineLength(total, source.name);
        requireStub();
        m_written = m_headWritten = true;
        file.write(first, 0);
        file.close();
        return total;
    }

    /// What points to data being lost is a failure, unless it is wanted.
    void suspect(const std::string& text) {
        if (!m_force)
            throw Failure(QZHSM_FAILURE, text, "With --force it is recalled all the same.");
        m_report.note("warning: " + text);
    }
    void tellLength(const std::string& text) {
        if (!std::exchange(m_lengthTold, true))
            suspect(text);
    }
    void examineLength(long long total, const std::string& source) {
        if (m_recorded != total)
            tellLength(source + " has " + std::to_string(total) + " bytes, but the stub " + m_path +
                       " records " + std::to_string(m_recorded));
    }

    /// Another recall may have ended in the meantime, and the file be in use again.
    void requireStub() {
        if (!isStubFile(m_backEnd, m_path, m_before))
            throw Failure(QZHSM_NOT_A_STUB, m_path + " has ceased to be a stub");
    }

    /// A recall that was cut short by a crash may have left more than the data behind.
    bool shorten(long long size) {
        if (size >= m_before.st_size)
            return false;
        if (::truncate(m_path.c_str(), size) < 0)
            throw Failure(QZHSM_FAILURE, systemFailure("Failed to truncate ", m_path, errno).what(),
                          "Its data are its first " + std::to_string(size) + " bytes.");
        return true;
    }

    void finish() {
        putTimesBack();
        flush();
        if (m_backEnd.restoreDone(m_path.c_str(), true, {}) >= 0)
            return;
        const Failure failure(m_backEnd);
        // Where no mark can be kept there is none to remove, and the file is whole.
        if (m_backEnd.isStub(m_path.c_str()) != 0 || m_backEnd.m_errorCode != QZHSM_SUCCESS)
            throw Failure(failure);
    }

    void putTimesBack() {
        checked(m_backEnd, m_backEnd.setAMCTime(m_path.c_str(), m_before.st_atime, m_before.st_mtime,
                                                m_before.st_ctime));
    }

    void putBack() {
        if (!m_headWritten && m_backEnd.isStub(m_path.c_str()) != 1)
            return m_report.note(m_path + ": no stub any more, left as it is");
        if (!keepsTextInFile(m_backEnd))
            return keepStub();
        try {
            checked(m_backEnd, m_backEnd.restoreDone(m_path.c_str(), false, {}));
            if (!m_written)
                return m_report.note(m_path + ": the stub was not touched");
            writeStub();
            m_report.note(m_path + ": the stub was put back as it was");
        } catch (const Failure& failure) {
            m_report.failure(failure);
            m_report.note(m_path + ": the stub could not be put back");
            return saveStubData();
        }
        putTimesBack();
    }

    /// What makes the file a stub lies outside its data.
    void keepStub() {
        try {
            const bool told = m_backEnd.restoreDone(m_path.c_str(), false, {}) >= 0;
            if (!told)
                m_report.failure(Failure(m_backEnd));
            if (m_written)
                putTimesBack();
        } catch (const Failure& failure) {
            m_report.failure(failure);
        }
        m_report.note(m_path +
                      (m_written ? ": still a stub, to be recalled again" : ": the stub was not touched"));
    }

    void writeStub() {
        TransparentFile file(m_backEnd, m_path, O_WRONLY | O_TRUNC);
        file.write(m_stubData, 0);
        if (m_before.st_size > static_cast<long long>(m_stubData.size()))
            file.write({'\0'}, m_before.st_size - 1);
        file.close();
    }

    void saveStubData() {
        try {
            m_report.note("its stub data is in " + writeNewFile(m_path + ".stubdata.XXXXXX", m_stubData));
        } catch (const Failure& failure) {
            m_report.failure(failure);
            m_report.note("its stub data is: " + std::string(m_stubData.begin(), m_stubData.end()));
        }
    }

    QZHSMLowLevel& m_backEnd;
    Report& m_report;
    const std::string& m_path;
    bool m_force;
    UniqueFd m_lock;
    struct stat m_before {};
    std::vector<char> m_stubData;
    long long m_recorded = 0; ///< the size of the data that the stub stands for
    bool m_written = false;
    bool m_headWritten = false; ///< the piece that covers a stub's header
    bool m_lengthTold = false;
};

} // namespace

void recall(QZHSMLowLevel& backEnd, Report& report, const std::string& path, const std::string& from,
            bool force) {
    Recall recall(backEnd, report, path, force);
    recall.run(recall.open(from));
}
