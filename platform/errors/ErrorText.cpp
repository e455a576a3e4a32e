#include "platform/errors/ErrorText.h"

#include <cstring>

std::string errnoText(std::initializer_list<std::string_view> pieces, int err) {
    std::string text;
    for (const std::string_view piece : pieces)
        text += piece;
    char reason[128];
    text += ": ";
    text += strerror_r(err, reason, sizeof reason);
    return text;
}
