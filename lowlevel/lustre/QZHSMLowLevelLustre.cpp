#include "lowlevel/lustre/QZHSMLowLevelLustre.h"

#include "lowlevel/lustre/LustreArchive.h"
#include "platform/drivers/LustreAPI.h"
#include "platform/logging/ProcessLog.h"

QZHSMLowLevelLustre::QZHSMLowLevelLustre() {
    readArchiveTimeout();
    const CWbError error = LustreAPI::LoadFunctions();
    if (!error.IsError())
        return;
    if (CLogWriterInterface* log = processLog(-1))
        log->Write(-1, "QZHSMLowLevelLustre::QZHSMLowLevelLustre()", 35, 0, 0,
                   "LoadFunctions failed, error=%s", error.AsString().c_str());
}

QZHSMLowLevelLustre::~QZHSMLowLevelLustre() = default;
