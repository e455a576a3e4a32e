#pragma once

/// Marks what the shared library exports; everything else is hidden.
#define QZHSM_API __attribute__((visibility("default")))

/// Lets the compiler check printf-style arguments: `fmt` is the format's position, counting `this`.
#define QZHSM_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
