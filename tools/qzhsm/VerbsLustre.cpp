#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "tools/qzhsm/BackEnds.h"
#include "tools/qzhsm/FileIo.h"
#include "tools/qzhsm/Verbs.h"

namespace {

QZHSMLowLevelLustre& requireLustre(QZHSMLowLevel& backEnd, const char* verb) {
    QZHSMLowLevelLustre* lustre = asLustre(backEnd);
    if (!lustre)
        throw Failure(QZHSM_NOT_IMPLEMENTED, std::string(verb) + " is for Lustre only: --fs LUSTRE_FS");
    return *lustre;
}

} // namespace

void release(QZHSMLowLevel& backEnd, const std::string& path) {
    QZHSMLowLevelLustre& lustre = requireLustre(backEnd, "release");
    statFollowing(path);
    checked(lustre, lustre.releaseFile(path.c_str(), false));
    // A release that Lustre refused shows in the state alone.
    const std::string state = lustreState(lustre, path);
    if (state.find("released") == std::string::npos)
        throw Failure(QZHSM_FAILURE, "Lustre did not release " + path + ", its state is" + state);
}

void hsmState(QZHSMLowLevel& backEnd, Report& report, const std::string& path) {
    QZHSMLowLevelLustre& lustre = requireLustre(backEnd, "hsm-state");
    statFollowing(path);
    const std::string state = lustreState(lustre, path);
    if (report.isJson())
        report.json({{"path", path}, {"state", state.substr(state.find_first_not_of(": "))}});
    else
        report.line(path + state);
}
