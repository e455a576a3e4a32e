#include "tools/qzhsm/BackEnds.h"

#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"
#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "platform/stub/StubText.h"
#include "tools/qzhsm/Report.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <linux/capability.h>
#include <string_view>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kDriverTextLimit = 2047;
constexpr const char* kStubTextAttribute = "user.TSTUB";

void requireFitting(const QZHSMLowLevel& backEnd, const char* what, const std::string& text) {
    if (asksDriver(backEnd) && text.size() > kDriverTextLimit)
        throw Failure(QZHSM_FAILURE, what + (" of " + std::to_string(text.size())) +
                                         " bytes: the driver takes at most " +
                                         std::to_string(kDriverTextLimit));
}

/// A stub text that claims to be longer than its attribute keeps the back-end reading for ever.
void requireReadable(const std::string& path) {
    std::vector<char> text(kStubTextMax + 1);
    int length = 0;
    const ssize_t got = ::lgetxattr(path.c_str(), kStubTextAttribute, text.data(), kStubTextMax);
    if (got > 0 && qzhsm_stub2meta(text.data(), &length, nullptr, nullptr, 0, true) && length > got)
        throw Failure(QZHSM_NOT_A_STUB, path + ": its stub text is cut short");
}

} // namespace

bool keepsTextInFile(const QZHSMLowLevel& backEnd) {
    return dynamic_cast<const QZHSMLowLevelDriverless*>(&backEnd) != nullptr;
}

bool marksOnly(const QZHSMLowLevel& backEnd) {
    return dynamic_cast<const QZHSMLowLevelGlusterFs*>(&backEnd) != nullptr;
}

bool asksDriver(const QZHSMLowLevel& backEnd) {
    return dynamic_cast<const QZHSMLowLevelQZFS*>(&backEnd) != nullptr;
}

QZHSMLowLevelLustre* asLustre(QZHSMLowLevel& backEnd) {
    return dynamic_cast<QZHSMLowLevelLustre*>(&backEnd);
}

std::string lustreState(QZHSMLowLevelLustre& lustre, const std::string& path) {
    std::string state;
    checked(lustre, lustre.getHSMState(path.c_str(), state));
    if (state.starts_with(path))
        state.erase(0, path.size());
    if (state.empty())
        throw Failure(QZHSM_FAILURE, "lfs told no state of " + path, "QZHSM_LOG_LEVEL=3 shows what it said.");
    while (!state.empty() && std::isspace(static_cast<unsigned char>(state.back())))
        state.pop_back();
    return state;
}

void requireSight(const QZHSMLowLevel& backEnd) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct capabilities[2] = {};
    ::syscall(SYS_capget, &header, capabilities);
    if (marksOnly(backEnd) && (capabilities[0].effective & (1U << CAP_SYS_ADMIN)) == 0)
        throw Failure(QZHSM_FAILURE,
                      "Stubs on GlusterFS are not to be seen without the capability CAP_SYS_ADMIN",
                      "Run this as root.");
}

void requirePath(QZHSMLowLevel& backEnd, const std::string& path) {
    requireFitting(backEnd, "Path", path);
    const auto isPlain = [](unsigned char c) {
        return std::isalnum(c) || c >= 0x80 ||
               std::string_view("/._-+,:@%=~").find(static_cast<char>(c)) != std::string_view::npos;
    };
    if (asLustre(backEnd) &&
        (path.starts_with('-') || path.starts_with('~') || !std::ranges::all_of(path, isPlain)))
        throw Failure(
            QZHSM_FAILURE,
            path + ": Lustre's command is run by a shell, which would not take this path as it stands");
}

void requireMetadata(const QZHSMLowLevel& backEnd, const std::string& meta) {
    requireFitting(backEnd, "Metadata", meta);
}

void requireName(const QZHSMLowLevel& backEnd, const std::string& path) {
    constexpr size_t kLongest = NAME_MAX - std::string_view(".nktmp.0").size();
    const size_t length = std::filesystem::path(path).filename().native().size();
    if (asksDriver(backEnd) && length > kLongest)
        throw Failure(QZHSM_FAILURE, path + ": a name of " + std::to_string(length) +
                                         " bytes cannot be recalled; the longest that can has " +
                                         std::to_string(kLongest));
}

std::string adviceToWatch(QZHSMLowLevel& backEnd, const std::string& path) {
    return asksDriver(backEnd) && backEnd.isDMRFS(path.c_str()) == 0
               ? "Its file system is not watched: see \"qzhsm watch\"."
               : "";
}

bool isStubFile(QZHSMLowLevel& backEnd, const std::string& path, const struct stat& st) {
    // Nothing else is ever a stub, and to look into a pipe would be to wait for its writer.
    if (!S_ISREG(st.st_mode))
        return false;
    if (::access(path.c_str(), R_OK) < 0)
        throw systemFailure("Failed to read from ", path, errno);
    if (QZHSMLowLevelLustre* lustre = asLustre(backEnd))
        return ::getxattr(path.c_str(), kStubTextAttribute, nullptr, 0) >= 0 &&
               lustreState(*lustre, path).find("released") != std::string::npos;
    if (marksOnly(backEnd))
        requireReadable(path);
    const int answer = backEnd.isStub(path.c_str());
    // Some back-ends say with code 8 what they answer too; what goes beyond that is damage.
    if (backEnd.m_errorCode == QZHSM_NOT_A_STUB && backEnd.m_errorText == path + " is not a stub")
        return answer != 0;
    return answered(backEnd, answer);
}
