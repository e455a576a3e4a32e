#include "lowlevel/QZHSMLowLevelCtx.h"
#include <cstdio>
#include <filesystem>

int main(int argc, char** argv) { // stub_one_file FILE ARCHIVED-COPY
    QZHSMLowLevelCtx registry(2); // 2: driverless, on any local file system
    QZHSMLowLevel* hsm = registry.getByFileName(argv[argc - 1]);
    struct stat st {};
    if (argc != 3 || !hsm || hsm->statFile(argv[1], &st) != 0 || hsm->isStub(argv[1]))
        return 2;
    if (std::error_code failed; !std::filesystem::copy_file(argv[1], argv[2], failed)) {
        std::fprintf(stderr, "%s: %s\n", argv[2], failed.message().c_str());
        return 2;
    }
    // The time from before the copy: a file that was changed since then is refused.
    if (hsm->stubFile(argv[1], "copy=1", st.st_mtime, st.st_size) == 0)
        return std::puts(hsm->isStub(argv[1]) ? "a stub now" : "not a stub") < 0;
    std::fprintf(stderr, "%s (code %d)\n", hsm->m_errorText.c_str(), hsm->m_errorCode);
    return 1;
}
