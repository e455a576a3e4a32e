#pragma once

#include <string>
#include <sys/stat.h>

/// Tells file-system types, and which of them hold no files of users.
class skipFS {
public:
    static skipFS& getInstance();

    /// The type's name as the mount table has it, "ext4" say, of the file system that holds the path, or
    /// "unknown". `skip` becomes true for a type that the kernel makes up, such as "proc". `st` is not needed
    /// and may be null.
    std::string GetFsType(const char* path, bool& skip, const struct stat* st) const;
};
