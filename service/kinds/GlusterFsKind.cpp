#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "platform/stub/CloudsyncAttributes.h"
#include "platform/stub/StubAttributes.h"
#include "platform/stub/StubText.h"
#include "service/kinds/Kinds.h"

#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <linux/capability.h>
#include <map>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

bool hasAttribute(const std::string& path, const char* name) {
    return ::lgetxattr(path.c_str(), name, nullptr, 0) >= 0;
}

/// The attributes of a stub that a file carries, by name.
using Marks = std::map<const char*, std::string>;

Marks readMarks(const std::string& path) {
    Marks marks;
    std::vector<char> value(kStubTextMax);
    for (const char* name : kCloudsyncAttributes) {
        const ssize_t got = ::lgetxattr(path.c_str(), name, value.data(), value.size());
        if (got >= 0)
            marks.emplace(name, std::string(value.data(), static_cast<size_t>(got)));
        else if (errno != ENODATA && errno != EOPNOTSUPP)
            throw systemFailure(std::string("Failed to read attribute ") + name + " of ", path, errno);
    }
    return marks;
}

bool isHalf(const Marks& marks) {
    return !marks.empty() && marks.size() < std::size(kCloudsyncAttributes);
}

void remove(const std::string& path, const Marks& marks) {
    for (const auto& [name, value] : marks)
        if (::lremovexattr(path.c_str(), name) < 0)
            throw systemFailure(std::string("Failed to remove attribute ") + name + " of ", path, errno);
}

/// Passes on the result of what creates marks; after a failure the file has those that it had.
int putBackUnless(int result, const std::string& path, const Marks& marks) {
    for (const auto& [name, value] : marks)
        if (result < 0 && ::lsetxattr(path.c_str(), name, value.data(), value.size(), 0) < 0)
            throw systemFailure(std::string("Failed to put back attribute ") + name + " of ", path, errno);
    return result;
}

/// Attributes make the stub, and the volume looks after the data. A restored stub comes back with its
/// attributes; it is then only marked complete.
class GlusterFsKind : public StubKind {
public:
    explicit GlusterFsKind(QZHSMLowLevelGlusterFs& backEnd) : StubKind(backEnd), m_glusterFs(backEnd) {}

    void requireSight() const override {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct capabilities[2] = {};
        ::syscall(SYS_capget, &header, capabilities);
        if ((capabilities[0].effective & (1U << CAP_SYS_ADMIN)) == 0)
            throw Failure(QZHSM_FAILURE,
                          "Stubs on GlusterFS are not to be seen without the capability CAP_SYS_ADMIN",
                          "Run this as root.");
    }

    FileLook look(const OpenFile& file, bool inside) override {
        FileLook look = StubKind::look(file, inside);
        if (look.state != FileState::Plain || !S_ISREG(look.st.st_mode))
            return look;
        const Marks marks = readMarks(pathOf(file));
        if (!isHalf(marks))
            return look;
        look.state = FileState::HalfMarked;
        if (const auto text = marks.find(kCloudsyncAttributes[StubText]); text != marks.end()) {
            look.text = text->second;
            if (const auto facts = readFacts(look.text))
                look.meta = facts->meta;
        }
        return look;
    }

    /// By its own descriptor: to open a stub does not recall it.
    UniqueFd hold(const OpenFile& file) override { return file.open(O_RDONLY | O_NONBLOCK); }

    void requireStores() const override {
        throw Failure(QZHSM_NOT_IMPLEMENTED, "GlusterFS moves its files' data to a store and back by itself",
                      "It does so when \"qzhsm stub\" has marked a file, and when a stub is read.");
    }

    void requireRepair() const override {}

    void beforeStubbing(const std::string& path, const std::string& meta, const struct stat& st) override {
        constexpr size_t kShortest = 20;
        StubKind::beforeStubbing(path, meta, st);
        ReparseData fields;
        if (ParseStubReparseData(meta, fields) && fields.versionGuid.size() < kShortest)
            throw Failure(QZHSM_FAILURE,
                          "Not stubbing " + path + ": the metadata's versionGuid is too short");
        const Marks marks = readMarks(path);
        if (marks.empty())
            return;
        if (!isHalf(marks))
            throw Failure(EEXIST, "Not stubbing " + path + ": it is marked complete already",
                          "The volume makes a stub of it.");
        // What a killed stubbing has left gives way, but never what may be all that tells where data is.
        const auto text = marks.find(kCloudsyncAttributes[StubText]);
        const auto facts = text == marks.end() ? std::nullopt : readFacts(text->second);
        const bool isOther = text != marks.end() && (!facts || facts->meta != meta);
        if (isOther || hasAttribute(path, kRemote))
            throw Failure(EEXIST, "Not stubbing " + path + ": it carries some of a stub's attributes already",
                          "\"qzhsm repair\" leads out of this if its data is there.");
    }

    int stub(const std::string& path, const std::string& meta, time_t refTime, long long size) override {
        const Marks found = readMarks(path);
        remove(path, found); // the back-end replaces none
        return putBackUnless(StubKind::stub(path, meta, refTime, size), path, found);
    }

    /// On a full disk the back-end takes a stub's other attributes away.
    int restore(const std::string& path, const std::vector<char>& stubData) override {
        const Marks found = readMarks(path);
        return putBackUnless(StubKind::restore(path, stubData), path, found);
    }

    void clearMarks(const std::string& path) override {
        if (hasAttribute(path, kRemote))
            throw Failure(QZHSM_FAILURE, path + " is half marked as a stub, and the volume has its data");
        remove(path, readMarks(path));
    }

    void beforeRestoring(const std::string& path, const StubFacts& saved, const struct stat* before,
                         bool) override {
        refuseEmpty(path, saved);
        if (!before)
            throw systemFailure("Failed to stat ", path, ENOENT);
        if (!hasAttribute(path, kCloudsyncAttributes[ProductId]))
            throw Failure(QZHSM_NOT_A_STUB,
                          path + " did not come back with its attributes: there is no stub to complete");
        // The back-end would take a stub's attributes away rather than mark it twice.
        if (hasAttribute(path, kCloudsyncAttributes[Complete]))
            throw Failure(EEXIST, "Not restoring a stub over " + path + ": it is marked complete already");
    }

    void undoRestoring(const std::string&, const struct stat&) override {}

protected:
    bool ask(const std::string& path) override {
        requireWholeText(path);
        bool isStub = false;
        std::vector<char> stubData;
        checked(m_glusterFs, m_glusterFs.getStubData(path.c_str(), isStub, stubData, 0));
        return isStub;
    }

private:
    /// Stub text that claims to be longer than its attribute keeps the back-end reading for ever.
    static void requireWholeText(const std::string& path) {
        std::vector<char> text(kStubTextMax + 1);
        int length = 0;
        const ssize_t got = ::lgetxattr(path.c_str(), kStubTextAttribute, text.data(), kStubTextMax);
        if (got > 0 && qzhsm_stub2meta(text.data(), &length, nullptr, nullptr, 0, true) && length > got)
            throw Failure(QZHSM_NOT_A_STUB, path + ": its stub text is cut short");
    }

    QZHSMLowLevelGlusterFs& m_glusterFs;
};

} // namespace

std::unique_ptr<StubKind> makeKind(QZHSMLowLevelGlusterFs& backEnd) {
    return std::make_unique<GlusterFsKind>(backEnd);
}
