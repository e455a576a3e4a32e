#include "service/FileIo.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/Verbs.h"

#include <filesystem>

namespace {

void requireWatching(const StubKind& kind, const std::string& path) {
    if (!kind.watches())
        throw Failure(QZHSM_NOT_IMPLEMENTED, path + ": this back-end watches nothing",
                      "The filter driver does: --fs qzfs.");
}

void watch(StubKind& kind, Report&, const std::string& path) {
    statFollowing(path);
    requireWatching(kind, path);
    checked(kind.backEnd(), kind.backEnd().startWatchingDirTree(path.c_str()));
}

void unwatch(StubKind& kind, Report&, const std::string& path) {
    requireWatching(kind, path);
    checked(kind.backEnd(), kind.backEnd().stopWatchingDirTree(path.c_str()));
}

void watched(StubKind& kind, Report& report, const std::string& path) {
    statFollowing(path);
    const std::string whole = std::filesystem::absolute(path).lexically_normal();
    kind.requirePath(whole);
    const bool isWatched = answered(kind.backEnd(), kind.backEnd().isDirBeingWatched(whole.c_str()));
    if (report.isJson())
        report.json({{"path", path}, {"watched", isWatched}});
    else
        report.row("watched  path", (isWatched ? "yes      " : "no       ") + path);
}

void resubmit(StubKind& kind, Report&) {
    checked(kind.backEnd(), kind.backEnd().resubmitPendingRecalls());
}

} // namespace

void addWatchVerbs(CommandLine& line) {
    line.addPathsVerb("watch", "Watch the file systems that hold directories", watch);
    line.addPathsVerb("unwatch", "End watching the file systems that hold directories", unwatch);
    line.addForms(line.addPathsVerb("watched", "Tell whether directories are watched", watched),
                  "End each row by NUL, with the path as it is, and leave out the heading");
    line.addVerb("resubmit", "Hand out again the recalls that nobody has served yet", resubmit);
}
