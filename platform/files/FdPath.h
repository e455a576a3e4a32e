#pragma once

#include <string>

/// The path by which this process gets at what the descriptor is open for, as long as it is open.
std::string fdPath(int fd);

/// Where what the descriptor is open for lies now, from the root on, as the kernel tells: " (deleted)" ends
/// the path of what is gone, and what has no path has a name such as "socket:[1]". Empty, with errno, if it
/// cannot be asked.
std::string pathBehind(int fd);
