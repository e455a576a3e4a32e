#include "fuzz/TempFile.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "platform/logging/CLogWriterInterface.h"
#include "platform/process/NkProcess.h"
#include "service/kinds/Kinds.h"

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <sys/xattr.h>

namespace {

std::string output;
int status = 0;

} // namespace

/// In the place of the shell: a command that says this.
int NkProcess::system(const char*, std::string* out, std::string* err, int, bool) {
    *out = output;
    *err = output;
    return status;
}

/// The first byte is what became of the command, the rest what it wrote.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const TempFile file;
    const std::string& path = file.path;
    static const bool isMarked = ::setxattr(path.c_str(), "user.TSTUB", "x", 1, 0) == 0;
    if (!isMarked)
        std::abort();
    if (size == 0)
        return 0;
    g_ptrLogWriter = nullptr;
    status = data[0] < 128 ? data[0] : data[0] - 256;
    output.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
    QZHSMLowLevelLustre backEnd;
    bool released = false;
    try {
        const std::string state = makeKind(backEnd)->hsmState(path);
        if (status < 0 || state.empty() || std::isspace(static_cast<unsigned char>(state.front())) ||
            std::isspace(static_cast<unsigned char>(state.back())) || output.find(state) == std::string::npos)
            std::abort();
        released = state.find("released") != std::string::npos;
    } catch (const Failure&) { // it told no state
    }
    if (released && backEnd.isStub(path.c_str()) != 1)
        std::abort();
    backEnd.releaseFile(path.c_str(), false);
    return 0;
}
