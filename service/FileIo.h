#pragma once

#include "platform/files/UniqueFd.h"

#include <functional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

/// Raises this process's limit of open files as far as it may: files on their way, and those who wait for
/// them, are open.
void allowManyDescriptors();

/// The file that a path leads to, symbolic links followed.
struct stat statFollowing(const std::string& path);

/// The bytes that the file's blocks take.
long long allocatedBytes(const struct stat& st);

/// Whether a stub in its place takes less: the stub's text takes a block, and its last byte another.
bool wouldFreeRoom(const struct stat& st);

bool isSameFile(const struct stat& a, const struct stat& b);

/// Whether size and modification time are the same.
bool hasSameData(const struct stat& a, const struct stat& b);
/// Whether nothing was done to the file between the two, but reading.
bool isUntouched(const struct stat& a, const struct stat& b);

/// Whether there is nothing but zeros.
bool allZero(std::string_view bytes);

/// Reading leaves the access time alone if the system lets it.
UniqueFd openForReading(const std::string& path);

/// Reads until `size` bytes are there or the file ends. `onSignal` is called when a signal cuts a read
/// short; what it throws passes.
std::vector<char> readUpTo(
    int fd, size_t size, const std::string& name, const std::function<void()>& onSignal = [] {});

/// Reads `size` bytes from `offset` on, wherever the descriptor stands; fewer only if the file ends. Throws
/// `Failure`.
size_t readAt(int fd, char* buffer, size_t size, off_t offset, const std::string& name);

/// The directory that a path's last component is in: "." for a path of one component.
std::string parentOf(const std::string& path);

/// Opens a directory so that it can be flushed. Throws `Failure`.
UniqueFd openDirectory(const std::string& path);
/// Brings a directory's entries to the disk.
void flushDirectory(int fd, const std::string& path);
