#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

struct Flushable {
    /// Open for reading or writing, from before what is to be flushed. A directory stands for a file in it
    /// that is not to be opened.
    int fd;
    dev_t device;
};

/// Brings one to the disk; `name` is for the failure.
void flushOne(int fd, const std::string& name);

/// Brings files, with their attributes and times, to the disk. Many files of one file system go together.
/// Throws `Failure` if any of them may not have got there.
void flushAll(const std::vector<Flushable>& files);
