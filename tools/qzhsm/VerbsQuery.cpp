#include "service/FileIo.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/Verbs.h"

#include <cstdio>
#include <ctime>

namespace {

std::string timeText(time_t seconds) {
    std::tm local{};
    char text[64];
    if (!::localtime_r(&seconds, &local) ||
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0)
        return std::to_string(seconds);
    return text;
}

void info(StubKind& kind, Report& report, const std::string& path) {
    const struct stat st = statFollowing(path);
    const bool isStub = kind.isStub(path, st);
    const bool isManaged = answered(kind.backEnd(), kind.backEnd().isDMRFS(path.c_str()));
    if (report.isJson())
        return report.json({{"path", path},
                            {"stub", isStub},
                            {"managed", isManaged},
                            {"logical", st.st_size},
                            {"allocated", allocatedBytes(st)}});
    char columns[64];
    std::snprintf(columns, sizeof columns, "%-4s  %-7s  %14lld  %14lld  ", isStub ? "yes" : "no",
                  isManaged ? "yes" : "no", static_cast<long long>(st.st_size), allocatedBytes(st));
    report.row("stub  managed         logical       allocated  path", columns + path);
}

void showStat(StubKind& kind, Report& report, const std::string& path) {
    struct stat st {};
    checked(kind.backEnd(), kind.backEnd().statFile(path.c_str(), &st));
    if (report.isJson())
        return report.json({{"path", path},
                            {"device", st.st_dev},
                            {"inode", st.st_ino},
                            {"mode", st.st_mode},
                            {"links", st.st_nlink},
                            {"uid", st.st_uid},
                            {"gid", st.st_gid},
                            {"logical", st.st_size},
                            {"allocated", allocatedBytes(st)},
                            {"atime", st.st_atime},
                            {"mtime", st.st_mtime},
                            {"ctime", st.st_ctime}});
    char columns[128];
    std::snprintf(columns, sizeof columns, "%06o  %6u  %6u  %14lld  %14lld  %s  %s  ", st.st_mode, st.st_uid,
                  st.st_gid, static_cast<long long>(st.st_size), allocatedBytes(st),
                  timeText(st.st_atime).c_str(), timeText(st.st_mtime).c_str());
    report.row("mode       uid     gid         logical       allocated  accessed             modified"
               "             path",
               columns + path);
}

} // namespace

void addQueryVerbs(CommandLine& line) {
    line.addJson(line.addPathsVerb(
        "info", "Tell whether files are stubs, are managed, and how much room they take", info));
    line.addJson(line.addPathsVerb(
        "stat", "Show files as the back-end sees them, symbolic links not followed", showStat));
}
