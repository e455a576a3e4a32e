#pragma once

/// Marks what the shared library exports; everything else is hidden.
#define QZHSM_API __attribute__((visibility("default")))

/// Marks the private operations of an exported class, which no caller can name: they may change freely.
#define QZHSM_HIDDEN __attribute__((visibility("hidden")))

/// Lets the compiler check printf-style arguments: `fmt` is the format's position, counting `this`.
#define QZHSM_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
