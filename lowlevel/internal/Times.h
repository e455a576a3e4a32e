#pragma once

#include "lowlevel/QZHSMLowLevel.h"

// Times and stat, for back-ends that ask the file system itself. Both clear the error first.

/// utime(2): 0, or -1 with the error set.
int setTimes(QZHSMLowLevel& backEnd, const char* path, long atime, long mtime);
/// stat(2): 0, or -1 with the error set.
int statPath(QZHSMLowLevel& backEnd, const char* path, struct stat* st);
