#include "emulator/DriverEmulator.h"
#include "lowlevel/QZHSMLowLevelCtx.h"
#include <cerrno>
#include <cstdio>
#include <fstream>

enum Outcome { kDone, kLater, kFailed };

// A caller of the filter driver's back-end: makes a stub of a file that is in the archive.
static Outcome retire(QZHSMLowLevel& hsm, const char* path) {
    struct stat st {};
    if (hsm.statFile(path, &st) == 0 && hsm.stubFile(path, "tape=7", st.st_mtime, st.st_size) == 0)
        return kDone;
    return hsm.m_errorCode == 3 ? kLater : kFailed; // 3: the file is in use
}

int main() { // its test, under the emulated driver
    std::ofstream("film") << "all its data";
    QZHSMLowLevelCtx registry(1); // 1: the filter driver
    QZHSMLowLevel* hsm = registry.getByFileName("film");
    bool right = hsm->startWatchingDirTree("film") == 0;
    emulator::fail(emulator::kCreateStub, EBUSY);
    right = right && retire(*hsm, "film") == kLater && hsm->isStub("film") == 0;
    right = right && retire(*hsm, "film") == kDone && hsm->isStub("film") == 1;
    std::puts(right ? emulator::driver().seen.back().text.c_str() : hsm->m_errorText.c_str());
    return right ? 0 : 1;
}
