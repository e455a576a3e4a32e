#include "tools/qzhsm/BackEnds.h"
#include "tools/qzhsm/FileIo.h"
#include "tools/qzhsm/StubData.h"
#include "tools/qzhsm/Verbs.h"

#include "lowlevel/glusterfs/CloudsyncAttributes.h"
#include "platform/stub/StubText.h"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

/// Why a back-end that creates its mark, and never replaces it, says that it is there.
Failure markedAlready(const std::string& path, const std::string& text) {
    return {EEXIST, text,
            path +
                " is a stub already, or an earlier stubbing was refused after marking it. In the second case "
                "its data is still there: \"qzhsm info\" shows the allocated size, and \"setfattr -x "
                "user.NkStubFile " +
                path + "\" takes the mark away."};
}

/// Where no mark can be kept the back-end would replace one stub by another, and its metadata would be lost.
void refuseStub(QZHSMLowLevel& backEnd, const std::string& path, const struct stat& st) {
    if (!isStubFile(backEnd, path, st))
        return;
    const std::string text = "Not replacing the stub " + path + ": File exists";
    throw keepsTextInFile(backEnd) ? markedAlready(path, text) : Failure(EEXIST, text);
}

/// Refuses what would lose by carrying its stub text at its beginning.
void requireGain(const std::string& path, const std::string& meta, long long size) {
    if (beginsWithStubText(readUpTo(openForReading(path).get(), kStubTextPrefix, path)))
        throw Failure(QZHSM_FAILURE, "Not stubbing " + path + ": it is a copy of a stub and holds no data");
    const int length = qzhsm_meta2stub(meta.c_str(), size, nullptr, 0);
    if (size <= length)
        throw Failure(QZHSM_FAILURE, "Not stubbing " + path + ": the stub text of " + std::to_string(length) +
                                         " bytes would not be shorter than its " + std::to_string(size));
}

/// A release that Lustre refused shows in the state alone.
void requireReleased(QZHSMLowLevel& backEnd, const std::string& path) {
    if (asLustre(backEnd) && !isStubFile(backEnd, path, statFollowing(path)))
        throw Failure(QZHSM_FAILURE, "Lustre did not release " + path,
                      "\"qzhsm --fs LUSTRE_FS hsm-state\" shows its state.");
}

/// Throws the back-end's last error, explained.
[[noreturn]] void throwExplained(QZHSMLowLevel& backEnd, const std::string& path) {
    if (backEnd.m_errorCode == EEXIST)
        throw markedAlready(path, backEnd.m_errorText);
    const Failure failure(backEnd);
    throw Failure(failure.code(), failure.what(), adviceToWatch(backEnd, path));
}

/// The file that is about to become a stub again: made where it is missing, since the mark needs a file to
/// land on, and taken back to what it was unless it is kept.
class Target {
public:
    Target(QZHSMLowLevel& backEnd, const std::string& path, bool force) : m_backEnd(backEnd), m_path(path) {
        struct stat st {};
        if (::stat(path.c_str(), &st) < 0) {
            if (errno != ENOENT)
                throw systemFailure("Failed to stat ", path, errno);
            const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
            if (!file.isOpen())
                throw systemFailure("Failed to create ", path, errno);
            m_created = true;
            return;
        }
        if (!S_ISREG(st.st_mode))
            throw Failure(QZHSM_FAILURE, "Not restoring a stub over special file " + path);
        refuseStub(backEnd, path, st);
        m_empty = st.st_size == 0;
        if (!m_empty && !force)
            throw Failure(QZHSM_FAILURE, "Not restoring a stub over " + path + ": it holds data",
                          "With --force its data is given up.");
    }
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;
    ~Target() {
        if (m_kept)
            return;
        if (m_created) {
            ::unlink(m_path.c_str());
            return;
        }
        if (keepsTextInFile(m_backEnd)) // a refusal came after the file was marked
            m_backEnd.restoreDone(m_path.c_str(), true, {});
        else if (asLustre(m_backEnd))
            ::removexattr(m_path.c_str(), "user.TSTUB");
        if (m_empty) [[maybe_unused]]
            const int result = ::truncate(m_path.c_str(), 0);
    }
    void keep() { m_kept = true; }

private:
    QZHSMLowLevel& m_backEnd;
    const std::string& m_path;
    bool m_created = false;
    bool m_empty = false;
    bool m_kept = false;
};

} // namespace

void stub(QZHSMLowLevel& backEnd, const std::string& path, const std::string& meta,
          std::optional<long> refTime) {
    requireMetadata(backEnd, meta);
    requireName(backEnd, path);
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) { // what is missing is the back-end's to refuse, in its own words
        if (!S_ISREG(st.st_mode))
            throw Failure(QZHSM_FAILURE, "Not stubbing special file " + path);
        refuseStub(backEnd, path, st);
        if (keepsTextInFile(backEnd))
            requireGain(path, meta, st.st_size);
        if (asLustre(backEnd) && st.st_size == 0)
            throw Failure(QZHSM_FAILURE, "Not stubbing " + path + ": an empty file could not be restored");
    }
    try {
        if (backEnd.stubFile(path.c_str(), meta.c_str(), refTime.value_or(st.st_mtime), st.st_size) < 0)
            throwExplained(backEnd, path);
    } catch (const std::out_of_range&) {
        throw Failure(QZHSM_FAILURE, "Not stubbing " + path + ": the metadata's versionGuid is too short");
    }
    requireReleased(backEnd, path);
}

void backup(QZHSMLowLevel& backEnd, Report& report, const std::string& path, const std::string& output,
            bool fromSnapshot) {
    if (!S_ISREG(statFollowing(path).st_mode))
        throw Failure(QZHSM_NOT_A_STUB, path + " is not a stub.");
    // A back-end may say no more than "is not a stub", whatever went wrong.
    if (!fromSnapshot && !keepsTextInFile(backEnd) && !isStubFile(backEnd, path, statFollowing(path)))
        throw Failure(QZHSM_NOT_A_STUB, path + " is not a stub", adviceToWatch(backEnd, path));
    std::vector<char> data;
    checked(backEnd, fromSnapshot ? backEnd.backupStubFromSnap(path.c_str(), data)
                                  : backEnd.backupStub(path.c_str(), data));
    if (!readFacts(data))
        throw Failure(QZHSM_NOT_A_STUB, "The stub " + path + " has no valid stub text");
    if (output.empty())
        return report.raw({data.data(), data.size()});

    // Only a plain file may be replaced: not a device, and not the stub itself.
    struct stat old {};
    if (::lstat(output.c_str(), &old) == 0 && (!S_ISREG(old.st_mode) || isSameFile(old, statFollowing(path))))
        throw Failure(QZHSM_FAILURE, "Not replacing " + output + ": it is the stub or no regular file");
    const size_t slash = output.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : output.substr(0, slash + 1);
    const std::string written = writeNewFile(directory + ".qzhsm.XXXXXX", data);
    if (::rename(written.c_str(), output.c_str()) < 0) {
        const int err = errno;
        ::unlink(written.c_str());
        throw systemFailure("Failed to write ", output, err);
    }
}

void restoreStub(QZHSMLowLevel& backEnd, const std::string& path, const std::string& stubFile, bool force) {
    const std::vector<char> data = readStubData(backEnd, stubFile);
    requireName(backEnd, path);
    if (marksOnly(backEnd)) {
        statFollowing(path);
        if (::getxattr(path.c_str(), kCloudsyncAttributes[ProductId], nullptr, 0) < 0)
            throw Failure(QZHSM_NOT_A_STUB,
                          path + " did not come back with its attributes: there is no stub to complete");
        // The back-end would take a stub's marks away rather than mark it twice.
        if (::getxattr(path.c_str(), kCloudsyncAttributes[Complete], nullptr, 0) >= 0)
            throw Failure(EEXIST, "Not restoring a stub over " + path + ": it is marked complete already");
        checked(backEnd, backEnd.restoreStub(path.c_str(), data));
        return;
    }
    // Its presence would be found only when the file is emptied.
    if (asLustre(backEnd) && ::getxattr(path.c_str(), "user.TSTUB", nullptr, 0) >= 0)
        throw Failure(EEXIST, "Not restoring a stub over " + path + ": it carries stub text",
                      "\"setfattr -x user.TSTUB " + path + "\" takes it away from a file that is no stub.");
    Target target(backEnd, path, force);
    const int result = backEnd.restoreStub(path.c_str(), data);
    if (result >= 0)
        requireReleased(backEnd, path);
    if (result >= 0 || backEnd.m_errorCode == EEXIST) // a mark that was there before is not ours to remove
        target.keep();
    if (result < 0)
        throwExplained(backEnd, path);
}

void setTimes(QZHSMLowLevel& backEnd, const std::string& path, long atime, long mtime) {
    checked(backEnd, backEnd.setAMCTime(path.c_str(), atime, mtime, 0));
}
