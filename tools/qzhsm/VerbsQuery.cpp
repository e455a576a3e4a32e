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

/// What is told of a file that is not plain, beside its row.
std::string details(const FileLook& look) {
    std::string text;
    if (!look.text.empty())
        text = "of " + std::to_string(look.recordedSize) + " bytes: " + look.meta;
    if (look.kept)
        text += std::string(text.empty() ? "" : "; ") + "text kept in user.TSTUB";
    if (!look.why.empty())
        text += (text.empty() ? "" : "; ") + look.why;
    return text;
}

void info(StubKind& kind, Report& report, const std::string& path) {
    const OpenFile file = OpenFile::following(path);
    const FileLook look = kind.look(file, true);
    const bool isManaged = answered(kind.backEnd(), kind.backEnd().isDMRFS(path.c_str()));
    if (report.isJson()) {
        Json object{{"path", path},
                    {"stub", look.countsAsStub()},
                    {"managed", isManaged},
                    {"logical", look.st.st_size},
                    {"allocated", allocatedBytes(look.st)},
                    {"state", nameOf(look.state)}};
        if (!look.text.empty())
            object.update({{"metadata", look.meta}, {"recorded", look.recordedSize}});
        if (look.state != FileState::Plain)
            object["kept"] = look.kept.has_value();
        if (!look.why.empty())
            object["problem"] = look.why;
        return report.json(std::move(object));
    }
    char columns[96];
    std::snprintf(columns, sizeof columns, "%-4s  %-7s  %14lld  %14lld  %-16s  ",
                  look.countsAsStub() ? "yes" : "no", isManaged ? "yes" : "no",
                  static_cast<long long>(look.st.st_size), allocatedBytes(look.st), nameOf(look.state));
    report.row("stub  managed         logical       allocated  state             path", columns + path);
    if (const std::string text = details(look); !text.empty() && !report.isNull())
        report.line("      " + text);
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
    line.addForms(
        line.addPathsVerb(
            "info",
            "Tell whether files are stubs or left in between, are managed, and how much room they take",
            info),
        "End each row by NUL, with the path as it is, and leave out heading and metadata");
    line.addForms(line.addPathsVerb(
                      "stat", "Show files as the back-end sees them, symbolic links not followed", showStat),
                  "End each row by NUL, with the path as it is, and leave out the heading");
}
