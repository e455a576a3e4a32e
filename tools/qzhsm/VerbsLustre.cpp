#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "tools/qzhsm/FileIo.h"
#include "tools/qzhsm/StubData.h"
#include "tools/qzhsm/Verbs.h"

namespace {

QZHSMLowLevelLustre& requireLustre(QZHSMLowLevel& backEnd, const char* verb) {
    auto* lustre = dynamic_cast<QZHSMLowLevelLustre*>(&backEnd);
    if (!lustre)
        throw Failure(QZHSM_NOT_IMPLEMENTED, std::string(verb) + " is for Lustre only: --fs LUSTRE_FS");
    return *lustre;
}

std::string stateOf(QZHSMLowLevelLustre& lustre, const std::string& path) {
    std::string state;
    checked(lustre, lustre.getHSMState(path.c_str(), state));
    while (!state.empty() && state.back() == '\n')
        state.pop_back();
    return state;
}

} // namespace

void release(QZHSMLowLevel& backEnd, const std::string& path) {
    QZHSMLowLevelLustre& lustre = requireLustre(backEnd, "release");
    statFollowing(path);
    checked(lustre, lustre.releaseFile(path.c_str(), false));
    // A release that Lustre refused shows in the state alone.
    const std::string state = stateOf(lustre, path);
    if (state.find("released") == std::string::npos)
        throw Failure(QZHSM_FAILURE, "Lustre did not release " + path + ", its state is: " + state);
}

void hsmState(QZHSMLowLevel& backEnd, Report& report, const std::string& path) {
    QZHSMLowLevelLustre& lustre = requireLustre(backEnd, "hsm-state");
    statFollowing(path);
    const std::string state = stateOf(lustre, path);
    if (report.isJson())
        report.json({{"path", path}, {"state", state}});
    else
        report.line(state);
}
