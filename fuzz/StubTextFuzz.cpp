#include "platform/stub/StubText.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

/// Whatever text the decoder accepts must be the one that the encoder makes of what it read.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<char> meta(kStubTextMax);
    long long fileSize = 0;
    int length = 0;
    if (qzhsm_stub2meta(text.c_str(), &length, &fileSize, meta.data(), kStubTextMax, true)) {
        std::string again(static_cast<size_t>(length), '\0');
        if (qzhsm_meta2stub(meta.data(), fileSize, again.data(), length) != length ||
            !text.starts_with(again))
            std::abort();
    }
    ReparseData parsed;
    ParseStubReparseData(text, parsed);
    return 0;
}
