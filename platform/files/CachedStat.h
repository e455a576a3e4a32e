#pragma once

#include <sys/stat.h>

/// An lstat of what the kernel has in its memory, which waits for no disk and no server. Takes a path in the
/// locale's encoding. False if that takes an lstat, which may wait or fail: the path is not cached or not
/// there, the file system is not a local one, or the kernel (older than 6.8) cannot tell.
bool cachedLstat(const char* path, struct stat& st);
