#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "platform/logging/CLogWriterInterface.h"
#include "platform/stub/StubText.h"
#include "service/stores/StubMetadata.h"

#include <cstdint>
#include <cstdlib>
#include <stdexcept>

/// What a stub's metadata says is read by whoever asks for its store, and by GlusterFS for its version GUID.
/// Accepted is only what can be written again and then reads the same.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    g_ptrLogWriter = nullptr;
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (const auto metadata = StubMetadata::fromText(text)) {
        const auto again = StubMetadata::fromText(metadata->toText());
        if (!again || again->toText() != metadata->toText() || again->store != metadata->store ||
            again->storeUuid != metadata->storeUuid || again->object != metadata->object)
            std::abort();
    }
    ReparseData fields;
    // The back-end gets it up to its NUL.
    const bool hasGuid = ParseStubReparseData(text.substr(0, text.find('\0')), fields);
    static QZHSMLowLevelGlusterFs backEnd;
    unsigned char guid[16];
    std::string versionGuid;
    try {
        const CWbError error = backEnd.GetVersionGUIDFromMetaInBinaryFormat(text.c_str(), guid, versionGuid);
        if (!hasGuid && !error.IsError())
            std::abort();
    } catch (const std::out_of_range&) { // for one that is too short
        if (!hasGuid || fields.versionGuid.size() >= 20)
            std::abort();
    }
    return 0;
}
