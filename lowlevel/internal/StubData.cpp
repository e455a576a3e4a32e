#include "lowlevel/internal/StubData.h"

#include "lowlevel/internal/LastError.h"
#include "platform/files/NkACL.h"
#include "platform/stub/StubAttributes.h"
#include "platform/stub/StubText.h"

#include <algorithm>
#include <string>

bool readStubAttribute(const char* path, std::vector<char>& stubData) {
    std::fill(stubData.begin(), stubData.end(), '\0');
    const auto acl = NkACL::Helper::getInstance(NkACL::Type::StubText);
    return acl->supportsXattr(path) &&
           acl->getAttribute(path, kStubTextAttribute, stubData.data(), stubData.size()) > 0;
}

int decodeStubData(QZHSMLowLevel& backEnd, const char* path, const std::vector<char>& stubData,
                   std::vector<char>& meta, long long& size) {
    constexpr size_t kFirstGuess = 256;
    const std::string text(stubData.begin(), stubData.end());
    meta.resize(kFirstGuess);
    for (;;) {
        std::fill(meta.begin(), meta.end(), '\0');
        int needed = 0;
        if (qzhsm_stub2meta(text.c_str(), &needed, &size, meta.data(), static_cast<int>(meta.size()), false))
            return 0;
        if (needed <= static_cast<int>(meta.size()))
            return fail(backEnd, QZHSM_FAILURE, std::string("Stub ") + path + " has corrupt metadata.");
        meta.resize(static_cast<size_t>(needed));
    }
}
