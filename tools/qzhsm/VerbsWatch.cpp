#include "tools/qzhsm/BackEnds.h"
#include "tools/qzhsm/FileIo.h"
#include "tools/qzhsm/Verbs.h"

#include <filesystem>

void watch(QZHSMLowLevel& backEnd, const std::string& path) {
    statFollowing(path);
    checked(backEnd, backEnd.startWatchingDirTree(path.c_str()));
}

void unwatch(QZHSMLowLevel& backEnd, const std::string& path) {
    checked(backEnd, backEnd.stopWatchingDirTree(path.c_str()));
}

void watched(QZHSMLowLevel& backEnd, Report& report, const std::string& path) {
    statFollowing(path);
    const std::string whole = std::filesystem::absolute(path).lexically_normal();
    requirePath(backEnd, whole);
    const bool isWatched = answered(backEnd, backEnd.isDirBeingWatched(whole.c_str()));
    if (report.isJson())
        report.json({{"path", path}, {"watched", isWatched}});
    else
        report.row("watched  path", (isWatched ? "yes      " : "no       ") + path);
}

void resubmit(QZHSMLowLevel& backEnd) {
    checked(backEnd, backEnd.resubmitPendingRecalls());
}
