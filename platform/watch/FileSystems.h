#pragma once

#include <set>
#include <string>
#include <sys/types.h>

// A file system's number is the kernel's own, the same for all of it: stat gives each subvolume of btrfs
// another.

/// Of the file system that holds the path. 0, with errno, if it cannot be told.
dev_t fileSystemOf(const std::string& path);

/// Where it is mounted; nothing of what another mount covers.
std::set<std::string> mountPointsOf(dev_t fileSystem);

/// Those on which a group of the kernel's file events has a mark as a whole.
std::set<dev_t> markedFileSystems(int group);

/// Those that hold this program and its libraries.
std::set<dev_t> ownFileSystems();
