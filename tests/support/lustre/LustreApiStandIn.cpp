#include "platform/Export.h"
#include "platform/drivers/LustreAPI.h"
#include "tests/support/StubData.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>

// Stands in for Lustre's user library and for a site's copy agent, beside the command "lfs", which says where
// a file's state is kept. The copy is whole after LUSTRE_DELAY_MS, and lost at once if LUSTRE_LOST is set.
// LUSTRE_FAIL="FUNCTION:ERRNO" makes a function fail. A malformed request ends the process.

namespace {

constexpr const char* kState = "user.lustre.hsm";

int injected(const char* function) {
    const char* wish = std::getenv("LUSTRE_FAIL");
    const size_t length = std::strlen(function);
    return wish && std::strncmp(wish, function, length) == 0 && wish[length] == ':'
               ? -std::atoi(wish + length + 1)
               : 0;
}

void require(bool holds, const char* what) {
    if (holds)
        return;
    std::fprintf(stderr, "Lustre stand-in: malformed request: %s\n", what);
    std::abort();
}

/// The number at an offset of a record, as the library's documentation has it.
template <class Number>
Number at(const void* record, size_t offset) {
    Number number{};
    std::memcpy(&number, static_cast<const char*>(record) + offset, sizeof number);
    return number;
}

long long nanoseconds() {
    return std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}

int setAttribute(const char* path, const char* name, const std::string& value) {
    return ::setxattr(path, name, value.data(), value.size(), 0) < 0 ? -errno : 0;
}

} // namespace

extern "C" {

QZHSM_API void* llapi_hsm_user_request_alloc(int itemCount, int dataLength) {
    const size_t size = 24 + static_cast<size_t>(itemCount) * 32 + static_cast<size_t>(dataLength);
    return injected("alloc") ? nullptr : std::calloc(1, size);
}

QZHSM_API int llapi_path2fid(const char* path, lu_fid* fid) {
    struct stat st {};
    if (::stat(path, &st) < 0)
        return -errno;
    *fid = {0x200000401, static_cast<uint32_t>(st.st_ino), 0};
    return injected("path2fid");
}

QZHSM_API int llapi_hsm_request(const char* path, const void* record) {
    require(at<uint32_t>(record, 0) == 10, "not to archive");
    require(at<uint32_t>(record, 4) == 0 && at<uint64_t>(record, 8) == 0, "another archive, or flags");
    require(at<uint32_t>(record, 16) == 1, "not one item");
    require(at<uint64_t>(record, 40) == 0 && at<uint64_t>(record, 48) == ~uint64_t{0}, "not the whole file");
    lu_fid fid{};
    require(llapi_path2fid(path, &fid) == 0 && at<uint64_t>(record, 24) == fid.f_seq &&
                at<uint32_t>(record, 32) == fid.f_oid && at<uint32_t>(record, 36) == fid.f_ver,
            "another FID");
    if (const int failure = injected("request"))
        return failure;

    // The copy agent's part: "META|REFTIME".
    const std::string data(static_cast<const char*>(record) + 56, at<uint32_t>(record, 20));
    const size_t bar = data.rfind('|');
    require(bar != std::string::npos, "no reference time");
    struct stat st {};
    ::stat(path, &st);
    if (st.st_mtime > std::atol(data.c_str() + bar + 1))
        return -EBUSY;
    if (const int failure = setAttribute(path, "user.TSTUB", stubText(data.substr(0, bar), st.st_size)))
        return failure;
    const char* delay = std::getenv("LUSTRE_DELAY_MS");
    const long long whole = nanoseconds() + std::atoll(delay ? delay : "3") * 1'000'000;
    return setAttribute(path, kState, (std::getenv("LUSTRE_LOST") ? "lost" : std::to_string(whole)) + " 0");
}

QZHSM_API int llapi_hsm_state_get(const char* path, void* record) {
    char state[64] = "";
    uint32_t states = 0;
    if (::getxattr(path, kState, state, sizeof state - 1) > 0) // exists, archived; and lost, or still dirty
        states = std::strncmp(state, "lost", 4) == 0 ? 0x49 : nanoseconds() >= std::atoll(state) ? 9 : 11;
    std::memset(record, 0, 1024); // what a state takes, with what may follow it
    std::memcpy(record, &states, sizeof states);
    return injected("state_get");
}
}
