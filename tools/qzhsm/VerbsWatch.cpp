#include "tools/qzhsm/Verbs.h"

void watch(QZHSMLowLevel& backEnd, const std::string& path) {
    checked(backEnd, backEnd.startWatchingDirTree(path.c_str()));
}

void unwatch(QZHSMLowLevel& backEnd, const std::string& path) {
    checked(backEnd, backEnd.stopWatchingDirTree(path.c_str()));
}

void watched(QZHSMLowLevel& backEnd, Report& report, const std::string& path) {
    const bool isWatched = answered(backEnd, backEnd.isDirBeingWatched(path.c_str()));
    if (report.isJson())
        report.json({{"path", path}, {"watched", isWatched}});
    else
        report.row("watched  path", (isWatched ? "yes      " : "no       ") + path);
}

void resubmit(QZHSMLowLevel& backEnd) {
    checked(backEnd, backEnd.resubmitPendingRecalls());
}
