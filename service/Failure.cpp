#include "service/Failure.h"

#include "platform/errors/ErrorText.h"

#include <cerrno>
#include <utility>

Failure::Failure(int code, const std::string& text, std::string advice)
    : std::runtime_error(text), m_code(code), m_advice(std::move(advice)) {}

Failure::Failure(const QZHSMLowLevel& backEnd) : Failure(backEnd.m_errorCode, backEnd.m_errorText) {}

Failure::~Failure() = default;

Failure systemFailure(std::string_view phrase, std::string_view path, int err) {
    return {err == ENOENT ? QZHSM_NOT_FOUND : QZHSM_FAILURE, errnoText({phrase, path}, err)};
}

int checked(const QZHSMLowLevel& backEnd, int result) {
    if (result < 0)
        throw Failure(backEnd);
    return result;
}

bool answered(const QZHSMLowLevel& backEnd, int result) {
    if (result < 0 || backEnd.m_errorCode != QZHSM_SUCCESS)
        throw Failure(backEnd);
    return result != 0;
}
