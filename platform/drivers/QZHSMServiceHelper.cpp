#include "platform/drivers/QZHSMServiceHelper.h"

#include <sys/stat.h>

bool QZHSMServiceHelper::IsFSFDriverLoaded() {
    struct stat st {};
    return ::stat(kDriverDevice, &st) == 0 && S_ISCHR(st.st_mode);
}
