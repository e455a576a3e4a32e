#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <string>
#include <string_view>

// The last error of a back-end is set and cleared here and nowhere else.

void clearError(QZHSMLowLevel& backEnd);

/// Clears the error: 0.
int succeed(QZHSMLowLevel& backEnd);

/// Sets the last error: -1.
int fail(QZHSMLowLevel& backEnd, int code, std::string text);
/// Fails with "`phrase``path`: " and the system's text for `err`.
int failErrno(QZHSMLowLevel& backEnd, int code, std::string_view phrase, std::string_view path, int err);
/// Fails with code 38 and "`operation` not implemented".
int refuse(QZHSMLowLevel& backEnd, std::string_view operation);
/// Presets code 8 and "`path` is not a stub", written in place: a text that is there already leaves enough
/// room, so that a query of a plain file allocates nothing.
void presetNotAStub(QZHSMLowLevel& backEnd, const char* path);

/// Sets the text alone, code 0 staying: for an answer that is no failure but calls for a reason.
void explain(QZHSMLowLevel& backEnd, std::string text);

/// The code for an errno: 4 for a missing file, else -1.
int codeFor(int err);
