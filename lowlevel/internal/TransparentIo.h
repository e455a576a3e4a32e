#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <string_view>

// Transparent I/O on one descriptor, which is negative while no file is open. Each sets the error on failure.

/// Fails because a file is open already: -1.
int failSecondOpen(QZHSMLowLevel& backEnd, std::string_view path);
/// Clears the error. False, with the error set, if no file is open.
bool requireTrans(QZHSMLowLevel& backEnd, int fd);
/// read(2).
int readTrans(QZHSMLowLevel& backEnd, int fd, void* buf, int len);
/// lseek(2).
long long seekTrans(QZHSMLowLevel& backEnd, int fd, long long offset, int whence);
