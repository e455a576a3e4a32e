#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "platform/stub/StubAttributes.h"
#include "service/kinds/Kinds.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <string_view>
#include <sys/xattr.h>

namespace {

constexpr std::string_view kReleased = "released";

bool hasStubText(const std::string& path) {
    return ::getxattr(path.c_str(), kStubTextAttribute, nullptr, 0) >= 0;
}

/// Lustre's own HSM keeps the stubs and recalls them. It is asked through a command that a shell runs.
class LustreKind : public StubKind {
public:
    explicit LustreKind(QZHSMLowLevelLustre& backEnd) : StubKind(backEnd), m_lustre(backEnd) {}

    void requirePath(const std::string& path) const override {
        const auto isPlain = [](unsigned char c) {
            return std::isalnum(c) || c >= 0x80 ||
                   std::string_view("/._-+,:@%=~").find(static_cast<char>(c)) != std::string_view::npos;
        };
        if (path.starts_with('-') || path.starts_with('~') || !std::ranges::all_of(path, isPlain))
            throw Failure(
                QZHSM_FAILURE,
                path + ": Lustre's command is run by a shell, which would not take this path as it stands");
    }

    void beforeStubbing(const std::string& path, const std::string& meta, const struct stat& st) override {
        StubKind::beforeStubbing(path, meta, st);
        if (st.st_size == 0)
            throw Failure(QZHSM_FAILURE, "Not stubbing " + path + ": an empty file could not be restored");
    }

    void afterStubbing(const std::string& path) override {
        requireReleased(path);
        if (!hasStubText(path))
            throw Failure(QZHSM_FAILURE, "Lustre released " + path + ", which has no stub text",
                          "The copy agent writes it when it archives the file.");
    }

    void beforeRestoring(const std::string& path, const StubFacts& saved, const struct stat* before,
                         bool force) override {
        // The back-end would find it only when it has emptied the file.
        if (hasStubText(path))
            throw Failure(EEXIST, "Not restoring a stub over " + path + ": it carries stub text",
                          "\"setfattr -x user.TSTUB " + path +
                              "\" takes it away from a file that is no stub.");
        StubKind::beforeRestoring(path, saved, before, force);
    }

    void undoRestoring(const std::string& path, const struct stat& before) override {
        ::removexattr(path.c_str(), kStubTextAttribute);
        StubKind::undoRestoring(path, before);
    }

    void requireStores() const override {
        throw Failure(QZHSM_NOT_IMPLEMENTED, "Lustre moves its files' data to an archive and back by itself",
                      "\"qzhsm stub\" has it archive and release a file.");
    }

    void requireRecalling(const OpenFile& file) const override {
        throw Failure(QZHSM_NOT_IMPLEMENTED, "Nothing but Lustre recalls " + file.name(),
                      "It does so when the file is read, or by \"lfs hsm_restore\".");
    }

    std::string hsmState(const std::string& path) override {
        std::string state;
        checked(m_lustre, m_lustre.getHSMState(path.c_str(), state));
        // The path may hold any word, and is no part of the state.
        if (state.starts_with(path))
            state.erase(0, path.size());
        const size_t start = state.find_first_not_of(": \t\r\n\v\f");
        if (start == std::string::npos)
            throw Failure(QZHSM_FAILURE, "lfs told no state of " + path,
                          "QZHSM_LOG_LEVEL=3 shows what it said.");
        return state.substr(start, state.find_last_not_of(" \t\r\n\v\f") + 1 - start);
    }

    void release(const std::string& path) override {
        checked(m_lustre, m_lustre.releaseFile(path.c_str(), false));
        requireReleased(path);
    }

protected:
    bool ask(const std::string& path) override {
        return hasStubText(path) && hsmState(path).find(kReleased) != std::string::npos;
    }

private:
    /// A release that Lustre refused shows in the state alone.
    void requireReleased(const std::string& path) {
        const std::string state = hsmState(path);
        if (state.find(kReleased) == std::string::npos)
            throw Failure(QZHSM_FAILURE, "Lustre did not release " + path + ", its state is: " + state);
    }

    QZHSMLowLevelLustre& m_lustre;
};

} // namespace

std::unique_ptr<StubKind> makeKind(QZHSMLowLevelLustre& backEnd) {
    return std::make_unique<LustreKind>(backEnd);
}
