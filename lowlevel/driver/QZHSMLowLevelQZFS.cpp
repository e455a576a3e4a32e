#include "lowlevel/driver/QZHSMLowLevelQZFS.h"

#include "lowlevel/driver/DriverRequests.h"
#include "lowlevel/internal/LastError.h"
#include "platform/config/NKPI_Focus.h"
#include "platform/config/NkRegKey.h"
#include "platform/drivers/QZHSMServiceHelper.h"
#include "platform/errors/NkException.h"
#include "platform/logging/EvDebug.h"

#include <cstdlib>
#include <fcntl.h>

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
