#pragma once

#include "emulator/DriverEmulator.h"
#include "platform/files/UniqueFd.h"

#include <cstdint>
#include <string>
#include <sys/stat.h>

namespace emulator {

/// What the driver knows of a file.
struct File {
    std::string path;
    struct stat st {};
    int err = 0; ///< why there is no such file, or 0
    bool watched = false;
    std::string record; ///< the file's size, a line break, the metadata; empty if it is not a stub

    bool isStub() const { return !record.empty(); }
    std::string meta() const { return record.substr(record.find('\n') + 1); }
};

File look(const std::string& path);
File lookByFid(const fsf_fid& fid);
std::pair<dev_t, ino_t> inodeOf(int fd);

// Each of these answers 0, or an errno.

/// Whether the driver looks after the file.
int check(const File& file);
/// Sets the record, then gives the data up. The times stay.
int makeStub(const File& file, int64_t size, const char* meta);
int dropStub(const File& file);
/// Makes `fd` a descriptor of the file's own data, with the access mode and the close-on-exec flag that it
/// had.
int redirect(int fd, const File& file);

bool isLockedByAnother(const File& file);

/// The watch list of all processes that share QZHSM_EMULATOR_STATE. While one of these lives, the process has
/// the list to itself, in `driver().watched`; then it is written back.
class SharedWatchList {
public:
    SharedWatchList();
    SharedWatchList(const SharedWatchList&) = delete;
    SharedWatchList& operator=(const SharedWatchList&) = delete;
    ~SharedWatchList();

private:
    const char* m_path;
    UniqueFd m_lock;
    std::set<uint64_t> m_before;
};

} // namespace emulator
