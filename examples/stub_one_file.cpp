#include "lowlevel/QZHSMLowLevelCtx.h"
#include <cstdio>

int main(int, char** argv) {      // stub_one_file FILE: its data must be in the archive already
    QZHSMLowLevelCtx registry(2); // 2: driverless, on any local file system
    QZHSMLowLevel* hsm = registry.getByFileName(argv[1]);
    struct stat st {};
    if (hsm->statFile(argv[1], &st) == 0 &&
        hsm->stubFile(argv[1], "tape=A00017", st.st_mtime, st.st_size) == 0)
        return std::puts(hsm->isStub(argv[1]) ? "a stub now" : "not a stub") < 0;
    std::fprintf(stderr, "%s (code %d)\n", hsm->m_errorText.c_str(), hsm->m_errorCode);
    return 1;
}
