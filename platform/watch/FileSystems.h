#pragma once

#include <set>
#include <string>
#include <sys/types.h>

// A file system's number is the kernel's own, the same for all of it: stat gives each subvolume of btrfs
// another.

/// The number of the file system that holds the path. 0, with errno, if it cannot be told.
dev_t fileSystemOf(const std::string& path);

/// The points where it is mounted, but those that another mount covers.
std::set<std::string> mountPointsOf(dev_t fileSystem);

/// The file systems whose pre-content events a group gets.
std::set<dev_t> markedFileSystems(int group);
/// Another process with a group that gets those of a file system, or 0. This one's parent does not count: a
/// service manager keeps groups for its services.
pid_t watcherOf(dev_t fileSystem);

/// The file systems that hold this program and its libraries.
std::set<dev_t> ownFileSystems();
