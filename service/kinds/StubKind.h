#pragma once

#include "platform/files/UniqueFd.h"
#include "service/Failure.h"
#include "service/FileState.h"
#include "service/StubData.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

/// What a glance tells; by default that only a look can tell.
struct Glance {
    /// The stat of what surely is an ordinary file, one that a look would find to be plain.
    std::optional<struct stat> plain{};
    bool lacksKeptText = false; ///< surely
};

/// What an HSM service has to know about one kind of stubs beyond the interface that all back-ends share:
/// what to look at before and after a back-end acts, and how a recall deals with the file. The defaults suit
/// a back-end about which nothing special is known.
///
/// What must not be done, or did not work, throws `Failure`.
class StubKind {
public:
    explicit StubKind(QZHSMLowLevel& backEnd) : m_backEnd(backEnd) {}
    StubKind(const StubKind&) = delete;
    StubKind& operator=(const StubKind&) = delete;
    virtual ~StubKind();

    QZHSMLowLevel& backEnd() const { return m_backEnd; }

    /// Whom to tell of a file, open as this descriptor, that is about to become a stub, once that shows on
    /// it; and whether there is anybody now, which may change.
    void onAnnounce(std::function<bool()> isAnybody, std::function<void(int fd)> tell) {
        m_isAnybody = std::move(isAnybody);
        m_announce = std::move(tell);
    }
    bool announces() const { return m_isAnybody && m_isAnybody(); }
    void announce(int fd) const { m_announce(fd); }

    // --- Any file ---

    /// Throws if this process cannot see stubs of this kind at all.
    virtual void requireSight() const;
    /// Throws if the back-end would take this path for another one.
    virtual void requirePath(const std::string& path) const;
    /// Whether to watch a file system does anything. The back-ends report a success either way.
    virtual bool watches() const;
    /// Whether the file is a stub. A file that may not be looked at throws, and never counts as no stub.
    bool isStub(const std::string& path, const struct stat& st);
    /// What to do about a failure with `code` on this file; empty if there is nothing to say. Asks the
    /// back-end, so its last error is lost.
    virtual std::string advice(const std::string& path, int code);
    /// The back-end's last error, with the advice on it.
    Failure lastFailure(const std::string& path);

    // --- Files that are opened once ---

    /// Whether stubs carry their text at the beginning of the file itself, in place of its data.
    virtual bool keepsTextInFile() const;
    /// The path by which the back-end gets to this very file. Throws if the file has none any more.
    virtual std::string pathOf(const OpenFile& file) const;
    /// What can be told of a directory's entry for less than a look costs, without opening it. Any thread may
    /// ask, whoever uses the kind meanwhile.
    virtual Glance glance(int directory, const char* name);
    /// What the file is. With `inside` the content of a file without a mark is looked at too.
    virtual FileLook look(const OpenFile& file, bool inside = false);
    /// The same, with the content of what may be the copy of a stub that lacks its mark.
    FileLook lookForCopy(const OpenFile& file);
    /// A descriptor to flush the file through: of the file, or of its directory if the file is not to be
    /// opened. While it is open no recall or stubbing of the file by others begins.
    virtual UniqueFd hold(const OpenFile& file);
    /// The same, again and again for as long as somebody else holds it and `goesOn` answers true, which is
    /// asked some fifty times a second with how often it was asked before.
    UniqueFd waitForHold(const OpenFile& file, const std::function<bool(int)>& goesOn);

    /// Throws code 38 unless such files can be put into a store and recalled from it. Some back-ends move the
    /// data by themselves.
    virtual void requireStores() const;
    /// Throws code 38 if there is nothing that `repair` could do for such files.
    virtual void requireRepair() const;
    /// Throws code 38 if nothing can be recalled from here at all.
    virtual void requireRecalling(const OpenFile& file) const;

    // --- Making stubs and saving them ---

    /// Throws if the file `st` must not become a stub with this metadata, or could not be recalled then.
    virtual void beforeStubbing(const std::string& path, const std::string& meta, const struct stat& st);
    /// The back-end's `stubFile`. A kind whose back-end leaves something behind when it fails sees to that.
    virtual int stub(const std::string& path, const std::string& meta, time_t refTime, long long size);
    /// Throws if the file is no stub although the back-end reported a success.
    virtual void afterStubbing(const std::string& path);
    /// Throws if there is no stub to save.
    virtual void beforeBackup(const std::string& path, const struct stat& st);

    // --- Restoring stubs ---

    /// Throws if the saved stub must not be restored at `path`. `before` is the file there, or null; one that
    /// holds data needs `force`.
    virtual void beforeRestoring(const std::string& path, const StubFacts& saved, const struct stat* before,
                                 bool force);
    /// The back-end's `restoreStub`, as `stub` is its `stubFile`.
    virtual int restore(const std::string& path, const std::vector<char>& stubData);
    /// Takes from a file that was there before what a failed restore has left on it.
    virtual void undoRestoring(const std::string& path, const struct stat& before);

    /// Takes the marks of a stub from a file in the state "half marked", which has its data.
    virtual void clearMarks(const std::string& path);

    // --- Recalling ---

    /// Whether a file that is to provide a recall's data is itself a stub.
    virtual bool isStubAsSource(const std::string& path, const struct stat& st);
    /// Whether the file can be shortened only when it is no stub any more.
    virtual bool shortensLast() const;
    /// Makes a half-recalled file of `size` bytes the stub that it was; nothing if it never ceased to be one.
    virtual void putBack(const std::string& path, const std::vector<char>& stubData, long long size);

    // --- What only Lustre's own HSM has; for any other kind code 38 ---

    /// Lustre's state of a file as "lfs" tells it, without the path and the colon behind it; never empty.
    virtual std::string hsmState(const std::string& path);
    /// Has Lustre give the data of an archived file up.
    virtual void release(const std::string& path);

protected:
    /// Whether this regular, readable file is a stub.
    virtual bool ask(const std::string& path);

    // Steps that several kinds take.

    /// Throws for a stub: another one in its place would lose the metadata.
    void refuseStub(const std::string& path, const struct stat& st);
    /// Throws for the stub of an empty file.
    static void refuseEmpty(const std::string& path, const StubFacts& saved);
    /// Throws unless `before` is null or a file that may become a restored stub.
    void requireTarget(const std::string& path, const struct stat* before, bool force);

private:
    QZHSMLowLevel& m_backEnd;
    std::function<bool()> m_isAnybody;
    std::function<void(int)> m_announce;
};

/// The kind of stubs that a back-end keeps. It uses the back-end and does not own it.
std::unique_ptr<StubKind> kindOf(QZHSMLowLevel& backEnd);
