#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"

#include "platform/config/ConfigFile.h"
#include "platform/config/NkRegKey.h"
#include "platform/errors/ErrorText.h"
#include "platform/errors/NkException.h"

QZHSMLowLevelGlusterFs::QZHSMLowLevelGlusterFs() {
    NkRegKey key(true);
    const int result = key.open("GlusterFS", true);
    // An empty store id would go into every stub: better no back-end than one that has not seen its own.
    if (result > 0)
        throw NkException("QZHSMLowLevelGlusterFs::QZHSMLowLevelGlusterFs",
                          errnoText({"Failed to read ", ConfigFile::path()}, result),
                          "QZHSMLowLevelGlusterFs", 13, QZHSM_FAILURE);
    const char* id = result == 0 ? key.getValue("storeId") : nullptr;
    if (id)
        storeId = id;
}

// An open transparent file is left open: whoever holds the session may still be writing recalled data through
// it, and a closed number could by then be another file's.
QZHSMLowLevelGlusterFs::~QZHSMLowLevelGlusterFs() = default;
