#pragma once

#include "platform/files/UniqueFd.h"

#include <string>
#include <vector>

// What makes a directory a store.

/// See `DirectoryStore::create`.
void makeStore(const std::string& directory);

/// The store's UUID. Throws `Failure` if the directory, which `name` names, is no store.
std::string readMarker(int directory, const std::string& name);

/// Waits until nobody else has this lock on the store.
UniqueFd lockMarker(int directory, const std::string& name);

/// Whether the open directory is a store, damaged or not.
bool isStore(int directory);

/// The store that holds the open file or directory, or is it; empty if none does.
std::string storeAround(int fd);

/// The directories over which objects are spread, by the first two digits of their names.
const std::vector<std::string>& storeParts();

/// An open directory's absolute path, free of symbolic links.
std::string pathOfStore(int directory);
