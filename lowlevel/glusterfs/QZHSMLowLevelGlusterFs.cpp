#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"

#include "platform/config/NkRegKey.h"

QZHSMLowLevelGlusterFs::QZHSMLowLevelGlusterFs() {
    NkRegKey key(true);
    if (key.open("GlusterFS", true) != 0)
        return;
    if (const char* id = key.getValue("storeId"))
        storeId = id;
}

// An open transparent file is left open: whoever holds the session may still be writing recalled data through
// it, and a closed number could by then be another file's.
QZHSMLowLevelGlusterFs::~QZHSMLowLevelGlusterFs() = default;
