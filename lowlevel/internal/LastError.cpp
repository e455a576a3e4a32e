#include "lowlevel/internal/LastError.h"

#include "platform/errors/ErrorText.h"

#include <cerrno>
#include <utility>

void clearError(QZHSMLowLevel& backEnd) {
    backEnd.m_errorCode = QZHSM_SUCCESS;
    backEnd.m_errorText.clear();
}

int succeed(QZHSMLowLevel& backEnd) {
    clearError(backEnd);
    return 0;
}

int fail(QZHSMLowLevel& backEnd, int code, std::string text) {
    backEnd.m_errorCode = code;
    backEnd.m_errorText = std::move(text);
    return -1;
}

int failErrno(QZHSMLowLevel& backEnd, int code, std::string_view phrase, std::string_view path, int err) {
    return fail(backEnd, code, errnoText({phrase, path}, err));
}

int refuse(QZHSMLowLevel& backEnd, std::string_view operation) {
    return fail(backEnd, QZHSM_NOT_IMPLEMENTED, std::string(operation) + " not implemented");
}

void presetNotAStub(QZHSMLowLevel& backEnd, const char* path) {
    backEnd.m_errorCode = QZHSM_NOT_A_STUB;
    backEnd.m_errorText.assign(path).append(" is not a stub");
}

void explain(QZHSMLowLevel& backEnd, std::string text) {
    backEnd.m_errorText = std::move(text);
}

int codeFor(int err) {
    return err == ENOENT ? QZHSM_NOT_FOUND : QZHSM_FAILURE;
}
