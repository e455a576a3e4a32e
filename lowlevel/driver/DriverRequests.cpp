#include "lowlevel/driver/DriverRequests.h"

#include "lowlevel/internal/LastError.h"
#include "platform/files/utf_files.h"

#include <cstring>
#include <string>

void setText(DriverText& field, const char* text) {
    std::memcpy(field, text, ::strnlen(text, sizeof field - 1));
}

void setPath(DriverText& field, const char* path) {
    setText(field, LocalPath(path).c_str());
}

int failRequest(QZHSMLowLevel& backEnd, const DriverOperation& operation, std::string_view path, int err) {
    int code = QZHSM_FAILURE;
    for (const DriverErrno& known : operation.errnos)
        if (known.err == err)
            code = known.code;
    if (code == QZHSM_SUCCESS)
        return 1;
    constexpr std::string_view kPlace = "%s";
    std::string what = operation.failure;
    if (const size_t at = what.find(kPlace); at != std::string::npos)
        what.replace(at, kPlace.size(), path);
    return failErrno(backEnd, code, what, "", err);
}
