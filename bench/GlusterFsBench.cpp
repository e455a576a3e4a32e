#include "bench/Harness.h"
#include "lowlevel/QZHSMLowLevelCtx.h"
#include "platform/files/UniqueFd.h"
#include "platform/stub/CloudsyncAttributes.h"
#include "platform/stub/StubText.h"

#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/xattr.h>

namespace {

constexpr const char* kMeta = "versionGuid=2f1c8a4e6f0b4d0e9d0a3b8f5f7f9b11;location=pool7/000042";
constexpr time_t kLater = std::numeric_limits<time_t>::max(); // no file counts as modified since

bool isProduct(const char* path) {
    char product[64] = "";
    return ::lgetxattr(path, kCloudsyncAttributes[ProductId], product, sizeof product) != -1 &&
           std::strcmp(product, kProductIdValue) == 0;
}

bool has(const char* path, const char* name) {
    return ::lgetxattr(path, name, nullptr, 0) != -1;
}

/// A plain file is told by the first attribute; a stub's own stub text takes the one allocation.
void glusterIsStub(benchmark::State& state, bool stub) {
    const std::string file = scratchPath(stub ? "gluster.stub" : "gluster.plain");
    const char* path = file.c_str();
    { const UniqueFd made(::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600)); }
    if (::setxattr(path, kRemote, "", 0, 0) < 0)
        return state.SkipWithError("no trusted attributes in the scratch directory: run as root, or set "
                                   "QZHSM_BENCH_DIR");
    QZHSMLowLevelCtx registry(5);
    QZHSMLowLevel* backEnd = registry.getByFileName("");
    for (const char* name : kCloudsyncAttributes) // what an earlier run of this benchmark left
        ::removexattr(path, name);
    if (stub && backEnd->stubFile(path, kMeta, kLater, 0) < 0)
        return giveUp(state, "glusterIsStub: " + backEnd->m_errorText);

    const Case promised{stub ? "glusterIsStub/stub" : "glusterIsStub/plain", 64, stub ? 5 : 1, stub ? 1 : 0};
    const auto ours = [&](int) { return (backEnd->isStub(path) == 1) == stub; };
    if (stub)
        measure(
            state, promised, [] {}, ours,
            [&](int) {
                char text[4096] = "";
                return isProduct(path) && has(path, kCloudsyncAttributes[StoreId]) &&
                       has(path, kCloudsyncAttributes[Uuid]) && has(path, kRemote) &&
                       ::lgetxattr(path, kCloudsyncAttributes[StubText], text, sizeof text) > 0 &&
                       qzhsm_stub2meta(text, nullptr, nullptr, nullptr, 0, false);
            });
    else
        measure(
            state, promised, [] {}, ours, [&](int) { return !isProduct(path); });
}

BENCHMARK_CAPTURE(glusterIsStub, stub, true)->UseManualTime();
BENCHMARK_CAPTURE(glusterIsStub, plain, false)->UseManualTime();

} // namespace
