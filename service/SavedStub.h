#pragma once

#include "service/kinds/StubKind.h"

#include <string>
#include <vector>

// Stubs saved and restored, with everything looked at that the back-ends leave to their callers. What must
// not be done, or fails, throws `Failure`.

/// A stub's data, valid stub text. `fromSnapshot`: the stub lies in a snapshot of the file system.
std::vector<char> saveStub(StubKind& kind, const OpenFile& file, bool fromSnapshot);

/// Puts a file of these bytes, of mode 0600, in the place of `path` once they are written, unless `stub` or
/// no regular file is there. All is on the disk when this returns. After a failure the old one is there, or,
/// if the last flush failed, perhaps the new one.
void writeSavedStub(const std::string& path, const std::vector<char>& stubData, const OpenFile& stub);

/// Makes a stub again, down to the disk. `stubData` is whole stub data; `force` allows the loss of a file
/// that holds data. A symbolic link is not followed.
///
/// A missing file is made empty first; then the text is kept in the file's attribute, and the stub is made.
/// After a kill there is no file, an empty one, or one that `repair` names; the restore can be repeated then.
/// After a failure a file that was there before is what it was; with `force`, and its data gone, it is left
/// to `repair`.
void restoreStub(StubKind& kind, const std::string& path, const std::vector<char>& stubData, bool force);
