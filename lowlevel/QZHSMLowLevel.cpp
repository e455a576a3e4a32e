#include "lowlevel/QZHSMLowLevel.h"

#include "lowlevel/QZHSMLowLevelCtxHelper.h"
#include "platform/errors/NkException.h"
#include "platform/logging/EvDebug.h"

#include <cerrno>
#include <unistd.h>

QZHSMLowLevel::~QZHSMLowLevel() = default;

int QZHSMLowLevel::resubmitPendingRecalls() {
    return 0;
}

QZHSMLowLevel* QZHSMLowLevel::create() {
    EvDebug log(nullptr);
    try {
        return createQZHSMLowLevelQZFS();
    } catch (const NkException& e) {
        log.Error("QZHSMLowLevel::create", "%s", e.getMessage());
        return nullptr;
    }
}

namespace {

/// Moves `len` bytes in as many calls of `moveSome(done, remaining)` as it takes.
template <class MoveSome>
int moveAll(int len, MoveSome moveSome) {
    int total = 0;
    while (total < len) {
        const int moved = moveSome(total, len - total);
        if (moved < 0)
            return moved;
        if (moved == 0)
            break;
        total += moved;
    }
    return total;
}

} // namespace

int QZHSMLowLevel::readFileTransAll(void* buf, int len) {
    return moveAll(len, [&](int done, int remaining) {
        return readFileTrans(static_cast<char*>(buf) + done, remaining);
    });
}

int QZHSMLowLevel::writeFileTransAll(const void* buf, int len) {
    return moveAll(len, [&](int done, int remaining) {
        return writeFileTrans(static_cast<const char*>(buf) + done, remaining, 0);
    });
}

// A descriptor that takes nothing is asked again without limit, which callers rely on.
int QZHSMLowLevel::writeAll(int fd, const void* buf, int len) {
    int total = 0;
    while (total < len) {
        const ssize_t written =
            ::write(fd, static_cast<const char*>(buf) + total, static_cast<size_t>(len - total));
        if (written >= 0)
            total += static_cast<int>(written);
        else if (errno != EINTR)
            return -1;
    }
    return total;
}
