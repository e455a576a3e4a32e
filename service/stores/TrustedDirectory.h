#pragma once

#include "platform/files/UniqueFd.h"

#include <string>

/// Opens a directory that somebody else has named, a stub's text for instance. It and all directories above
/// it must belong to root or to this process's user, and nobody else may be able to write there or, in a
/// directory with the sticky bit, to rename what is in it; the path must be absolute and without ".", "..",
/// double slashes and symbolic links. So no other user has made the directory or put it there. Throws
/// `Failure` that says which of these does not hold.
UniqueFd openTrustedDirectory(const std::string& path);
