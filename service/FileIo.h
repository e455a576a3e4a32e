#pragma once

#include "platform/files/UniqueFd.h"

#include <functional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

/// The file that a path leads to, symbolic links followed.
struct stat statFollowing(const std::string& path);

/// The bytes that the file's blocks take.
long long allocatedBytes(const struct stat& st);

bool isSameFile(const struct stat& a, const struct stat& b);

/// Reading leaves the access time alone where the system lets it.
UniqueFd openForReading(const std::string& path);

/// Reads until `size` bytes are there or the file ends. `onSignal` is called where a signal cuts a read
/// short; what it throws passes.
std::vector<char> readUpTo(
    int fd, size_t size, const std::string& name, const std::function<void()>& onSignal = [] {});

/// Writes a new file of mode 0600, down to the disk, and gives its name: `name` with the six X at its end
/// replaced. After a failure there is no such file.
std::string writeNewFile(std::string name, const std::vector<char>& bytes);
