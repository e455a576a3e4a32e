#include "lowlevel/driver/QZHSMLowLevelQZFS.h"

#include "lowlevel/driver/DriverRequests.h"
#include "lowlevel/internal/LastError.h"
#include "platform/config/NKPI_Focus.h"
#include "platform/config/NkRegKey.h"
#include "platform/drivers/QZHSMServiceHelper.h"
#include "platform/errors/NkException.h"
#include "platform/files/utf_files.h"
#include "platform/logging/EvDebug.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>

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

QZHSMLowLevelQZFS::QZHSMLowLevelQZFS() {
    try {
        const std::string instance = std::string("Tessly/") + NKPI_Focus::getFocus();
        NkRegKey key(true);
        for (const char* component : {"/JRN", "/Sortwell"}) {
            if (flr_driver || key.open(instance + component, true) != 0)
                continue;
            const char* installed = key.getValue("nINSTALL");
            if (installed && std::atoi(installed) != 0)
                flr_driver = g_flrDriverFactory();
        }
    } catch (const NkException& e) {
        EvDebug(nullptr).Error(e.getFuncName(), "%s", e.getMessage());
    }
}

QZHSMLowLevelQZFS::~QZHSMLowLevelQZFS() {
    trans_fd = UniqueFd(); // the session ends while the device and the journal's client are there
    admin_fd = UniqueFd();
}

int QZHSMLowLevelQZFS::openAdminNode() {
    if (admin_fd.isOpen())
        return 0;
    if (!QZHSMServiceHelper::IsFSFDriverLoaded())
        return fail(*this, QZHSM_FAILURE, "FSF driver is not loaded");
    admin_fd = UniqueFd(::open(kDriverDevice, O_RDWR));
    if (!admin_fd.isOpen())
        return failErrno(*this, QZHSM_FAILURE, "Failed to open ", kDriverDevice, errno);
    return 0;
}

bool QZHSMLowLevelQZFS::begin() {
    clearError(*this);
    return openAdminNode() == 0;
}
