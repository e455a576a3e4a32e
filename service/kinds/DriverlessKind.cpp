#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"
#include "platform/stub/StubAttributes.h"
#include "platform/stub/StubText.h"
#include "service/FileIo.h"
#include "service/Glance.h"
#include "service/TransparentFile.h"
#include "service/kinds/Kinds.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>

namespace {

/// The stub text lies at the beginning of the file itself, in place of its data.
class DriverlessKind : public StubKind {
public:
    explicit DriverlessKind(QZHSMLowLevelDriverless& backEnd) : StubKind(backEnd) {}

    /// Goes by what the file is: advice on one that cannot be looked at could cost its data.
    std::string advice(const std::string& path, int code) override {
        if (code != EEXIST && code != QZHSM_NOT_A_STUB)
            return {};
        const std::string way = ": \"qzhsm repair\" leads out of this.";
        try {
            const FileLook look = lookAt(OpenFile::following(path), true);
            switch (look.state) {
            case FileState::Stub:
            case FileState::ChangedStub:
                return code == EEXIST ? path + " is a stub already." : "";
            case FileState::MarkedWhole:
                return path + " is marked as a stub, and has data that is no stub text" + way;
            case FileState::Emptied:
            case FileState::HalfRecalled:
                return path + " is " + nameOf(look.state) + way;
            case FileState::Lost:
                if (look.holdsData)
                    return path + " is marked as a stub and has holes: \"qzhsm repair\" tells more.";
                return path + " is marked and empty, and nothing on it tells where its data is: \"qzhsm "
                              "restore-stub\" brings the stub back if it was saved.";
            default:
                return {};
            }
        } catch (const Failure&) {
            return {};
        }
    }

    void beforeStubbing(const std::string& path, const std::string& meta, const struct stat& st) override {
        StubKind::beforeStubbing(path, meta, st);
        if (beginsWithStubText(readUpTo(openForReading(path).get(), kStubTextPrefix, path)))
            throw Failure(QZHSM_FAILURE,
                          "Not stubbing " + path + ": it is a copy of a stub and holds no data");
        const int length = qzhsm_meta2stub(meta.c_str(), st.st_size, nullptr, 0);
        if (st.st_size <= length)
            throw Failure(QZHSM_FAILURE,
                          "Not stubbing " + path + ": the stub text of " + std::to_string(length) +
                              " bytes would not be shorter than its " + std::to_string(st.st_size));
    }

    bool keepsTextInFile() const override { return true; }

    void requireStores() const override {}

    void requireRepair() const override {}

    /// The back-end follows links, this one too, so no name is needed again.
    std::string pathOf(const OpenFile& file) const override { return file.path(); }

    Glance glance(int directory, const char* name) override {
        const EntryAttributes attributes(directory, name);
        Glance glance;
        if (!attributes.areKnown())
            return glance;
        glance.lacksKeptText = !attributes.contain(kStubTextAttribute);
        if (!glance.lacksKeptText || attributes.contain(kStubMark))
            return glance;
        glance.plain = statReadable(directory, name);
        if (!glance.plain || glance.plain->st_dev == m_withAttributes)
            return glance;
        if (hasUserAttributes(directory, name))
            m_withAttributes = glance.plain->st_dev;
        else
            glance.plain.reset();
        return glance;
    }

    FileLook look(const OpenFile& file, bool inside) override { return lookAt(file, inside); }

    /// Two recalls at once would each take the other's first writes for the stub's.
    UniqueFd hold(const OpenFile& file) override {
        UniqueFd lock = file.open(O_RDONLY | O_NONBLOCK);
        int result = ::flock(lock.get(), LOCK_EX | LOCK_NB);
        if (result < 0 && errno == EBADF) { // NFS locks only what is open for writing
            lock = file.open(O_RDWR | O_NONBLOCK);
            result = ::flock(lock.get(), LOCK_EX | LOCK_NB);
        }
        if (result < 0 && errno == EWOULDBLOCK)
            throw Failure(QZHSM_BUSY, file.name() + " is locked, as by another recall or archiving of it");
        if (result < 0)
            throw systemFailure("Failed to lock ", file.name(), errno);
        return lock;
    }

    /// Whatever holds stub text can be saved, marked or not.
    void beforeBackup(const std::string&, const struct stat&) override {}

    /// A file that held data which is gone now stays marked: what is kept makes it the stub.
    void undoRestoring(const std::string& path, const struct stat& before) override {
        StubKind::undoRestoring(path, before);
        if (before.st_size == 0)
            backEnd().restoreDone(path.c_str(), true, {});
    }

    /// The beginning of the source tells, and costs it no change of times.
    bool isStubAsSource(const std::string&, const struct stat&) override { return false; }

    void putBack(const std::string& path, const std::vector<char>& stubData, long long size) override {
        TransparentFile file(backEnd(), path, O_WRONLY | O_TRUNC);
        // In this order: with the text and another size it would pass for a stub that somebody cut.
        if (size > static_cast<long long>(stubData.size()))
            file.write(std::vector<char>{'\0'}, size - 1);
        file.write(stubData, 0);
        file.close();
    }

private:
    std::atomic<dev_t> m_withAttributes = 0; ///< the file system that was seen last to have some
};

} // namespace

std::unique_ptr<StubKind> makeKind(QZHSMLowLevelDriverless& backEnd) {
    return std::make_unique<DriverlessKind>(backEnd);
}
