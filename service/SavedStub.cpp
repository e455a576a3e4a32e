#include "service/SavedStub.h"

#include "service/FileIo.h"
#include "service/KeptText.h"
#include "service/StubJob.h"
#include "service/stores/StoreFiles.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// Where a file is to be: a name in a directory that is opened once.
struct Place {
    explicit Place(const std::string& path)
        : parent(parentOf(path)), name(path.substr(path.rfind('/') + 1)),
          directory(OpenFile::directoryOf(path)) {}

    std::string parent;
    std::string name;
    UniqueFd directory;
};

/// A file that is made for a stub to be restored into: the back-end's mark needs one to land on.
class NewTarget {
public:
    explicit NewTarget(const std::string& path) : m_path(path), m_place(path) {
        const UniqueFd file(::openat(directory(), name(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!file.isOpen() || ::fstat(file.get(), &m_made) < 0)
            throw systemFailure("Failed to create ", path, errno);
    }

    OpenFile open() const {
        OpenFile file = OpenFile::in(directory(), name(), m_path);
        if (!isSameFile(file.stat(), m_made))
            throw Failure(QZHSM_BUSY, m_path + " was replaced while it was made");
        return file;
    }
    void flush() const { flushDirectory(directory(), m_place.parent); }
    void remove() const {
        struct stat now {};
        if (::fstatat(directory(), name(), &now, AT_SYMLINK_NOFOLLOW) == 0 && isSameFile(now, m_made))
            ::unlinkat(directory(), name(), 0);
        ::fsync(directory());
    }

private:
    int directory() const { return m_place.directory.get(); }
    const char* name() const { return m_place.name.c_str(); }

    std::string m_path;
    Place m_place;
    struct stat m_made {};
};

/// The restoring of one stub into a file that is there.
class RestoreJob : public StubJob {
public:
    using StubJob::StubJob;

    void restore(const std::vector<char>& stubData, long long size) {
        holdAsSeen();
        const std::string path = kind().pathOf(file());
        bool isOurs = false; // what mark there may be
        try {
            keepText({stubData.begin(), stubData.end()}, size);
            flush();
            if (!hasSameData(file().stat(), look().st))
                throw disturbed();
            isOurs = true;
            make(path, [&] {
                const int result = kind().restore(path, stubData);
                isOurs = result >= 0 || kind().backEnd().m_errorCode != EEXIST;
                return result;
            });
            flush();
        } catch (...) {
            undo(path, isOurs);
            throw;
        }
        end();
        flush();
    }

    /// Whether another restore of this stub was cut off here, or nothing is left that could be lost.
    bool isHalfDone(const std::vector<char>& stubData, bool force) const {
        const bool isSame = look().kept && look().kept->text == std::string(stubData.begin(), stubData.end());
        const bool isLost = look().state == FileState::Lost && (force || !look().holdsData);
        return isLost || (look().state == FileState::Emptied && isSame);
    }

    void complete(const std::vector<char>& stubData, long long size) {
        holdAsSeen();
        keepText({stubData.begin(), stubData.end()}, size);
        flush();
        completeText();
        flush();
        end();
        flush();
    }

private:
    /// What it was judged by still holds.
    void holdAsSeen() {
        const struct stat seen = look().st;
        hold();
        if (!isUntouched(look().st, seen))
            throw disturbed();
    }

    Failure disturbed() const { return {QZHSM_BUSY, file().name() + " was changed meanwhile"}; }

    void undo(const std::string& path, bool isOurs) {
        try {
            if (isOurs)
                kind().undoRestoring(path, look().st);
            if (look().st.st_size == 0 || !isEmptied())
                dropText();
            flush();
        } catch (const Failure&) { // the first one is told
        }
    }
};

std::optional<OpenFile> find(const std::string& path) {
    try {
        return OpenFile::named(path);
    } catch (const Failure& failure) {
        if (failure.code() == QZHSM_NOT_FOUND)
            return {};
        throw;
    }
}

} // namespace

std::vector<char> saveStub(StubKind& kind, const OpenFile& file, bool fromSnapshot) {
    QZHSMLowLevel& backEnd = kind.backEnd();
    const struct stat st = file.stat();
    if (!S_ISREG(st.st_mode))
        throw Failure(QZHSM_NOT_A_STUB, file.name() + " is not a stub.");
    const std::string path = kind.pathOf(file);
    std::vector<char> data;
    if (fromSnapshot) {
        checked(backEnd, backEnd.backupStubFromSnap(path.c_str(), data));
    } else {
        kind.beforeBackup(path, st);
        checked(backEnd, backEnd.backupStub(path.c_str(), data));
    }
    data = withoutPurpose(std::move(data));
    if (!readFacts(data))
        throw Failure(QZHSM_NOT_A_STUB, "The stub " + file.name() + " has no valid stub text");
    return data;
}

void writeSavedStub(const std::string& path, const std::vector<char>& stubData, const OpenFile& stub) {
    const Place place(path);
    const int directory = place.directory.get();
    struct stat old {};
    if (::fstatat(directory, place.name.c_str(), &old, AT_SYMLINK_NOFOLLOW) < 0) {
        if (errno != ENOENT)
            throw systemFailure("Failed to stat ", path, errno);
    } else if (!S_ISREG(old.st_mode) || isSameFile(old, stub.stat())) {
        throw Failure(QZHSM_FAILURE, "Not replacing " + path + ": it is the stub or no regular file");
    }
    const std::string written = std::string(".qzhsm.").append(ObjectId::generate().text());
    try {
        NewFile file(directory, written, place.parent + '/' + written);
        file.write(0, stubData.data(), stubData.size());
        file.flush();
        file.close();
        if (::renameat(directory, written.c_str(), directory, place.name.c_str()) < 0)
            throw systemFailure("Failed to write ", path, errno);
    } catch (...) {
        ::unlinkat(directory, written.c_str(), 0);
        throw;
    }
    flushDirectory(directory, place.parent);
}

void restoreStub(StubKind& kind, const std::string& path, const std::vector<char>& stubData, bool force) {
    const StubFacts saved = readFacts(stubData).value();
    if (std::optional<OpenFile> found = find(path)) {
        RestoreJob job(kind, std::move(*found));
        return job.file().as([&] {
            if (job.isHalfDone(stubData, force))
                return job.complete(stubData, saved.fileSize);
            kind.beforeRestoring(kind.pathOf(job.file()), saved, &job.look().st, force);
            job.restore(stubData, saved.fileSize);
        });
    }
    kind.beforeRestoring(path, saved, nullptr, force);
    const NewTarget made(path);
    try {
        made.flush();
        RestoreJob job(kind, made.open());
        job.file().as([&] { job.restore(stubData, saved.fileSize); });
    } catch (...) {
        made.remove();
        throw;
    }
}
