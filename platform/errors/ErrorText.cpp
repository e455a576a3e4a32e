#include "platform/errors/ErrorText.h"

#include <cstring>

std::string errnoReason(int err) {
    char reason[128];
    return strerror_r(err, reason, sizeof reason);
}

std::string errnoText(std::initializer_list<std::string_view> pieces, int err) {
    std::string text;
    for (const std::string_view piece : pieces)
        text += piece;
    return text + ": " + errnoReason(err);
}
