#pragma once

#include "service/FileState.h"
#include "service/OpenFile.h"

/// Compares a file, open for reading as `data`, with the copy of it that is to be its archive, and gives the
/// copy open, to be flushed before the file's data is given up. Throws unless size, modification time (to the
/// nanosecond, or to the second if that is what the copy has) and content are the same.
UniqueFd requireSameCopy(int data, const OpenFile& file, const FileLook& look, const OpenFile& copy);
