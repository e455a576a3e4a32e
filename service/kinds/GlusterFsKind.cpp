#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "platform/stub/StubText.h"
#include "service/kinds/Kinds.h"

#include <cerrno>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

bool hasAttribute(const std::string& path, const char* name) {
    return ::getxattr(path.c_str(), name, nullptr, 0) >= 0;
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

    void beforeStubbing(const std::string& path, const std::string& meta, const struct stat& st) override {
        constexpr size_t kShortest = 20;
        StubKind::beforeStubbing(path, meta, st);
        ReparseData fields;
        if (ParseStubReparseData(meta, fields) && fields.versionGuid.size() < kShortest)
            throw Failure(QZHSM_FAILURE,
                          "Not stubbing " + path + ": the metadata's versionGuid is too short");
    }

    void beforeRestoring(const std::string& path, const StubFacts& saved, const struct stat* before,
                         bool) override {
        refuseEmpty(path, saved);
        if (!before)
            throw systemFailure("Failed to stat ", path, ENOENT);
        if (!hasAttribute(path, "trusted.cloudsync.product-id"))
            throw Failure(QZHSM_NOT_A_STUB,
                          path + " did not come back with its attributes: there is no stub to complete");
        // The back-end would take a stub's attributes away rather than mark it twice.
        if (hasAttribute(path, "trusted.glusterfs.csou.complete"))
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
