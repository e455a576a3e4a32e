#pragma once

#include "service/kinds/StubKind.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

// Stubs made, saved and restored, with everything looked at that the back-ends leave to their callers. What
// must not be done, or fails, throws `Failure`.

/// Turns a file whose data has been archived into a stub. `refTime` is the modification time that it had
/// then; without it the file's own counts, and a later change is not noticed.
void makeStub(StubKind& kind, const std::string& path, const std::string& meta,
              std::optional<time_t> refTime);

/// A stub's data, valid stub text. `fromSnapshot`: the stub lies in a snapshot of the file system.
std::vector<char> saveStub(StubKind& kind, const std::string& path, bool fromSnapshot);

/// Makes a stub again. `stubData` is whole stub data; `force` allows the loss of a file that holds data.
/// After a failure a file that was there before is what it was, with `force` perhaps without its data.
void restoreStub(StubKind& kind, const std::string& path, const std::vector<char>& stubData, bool force);
