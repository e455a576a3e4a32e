#pragma once

#include "service/Observer.h"
#include "service/kinds/StubKind.h"

/// In a stub's metadata, before the modification time that the file had, in nanoseconds: what is made a stub
/// again gets it back.
constexpr const char* kModified = "mtime=";

/// Leads a file out of whatever state a kill, a power cut or a refusal has left it in, down to the disk, and
/// tells what was done. With `dryRun` only tells what would be done. Throws if there is no way out from here.
void repair(StubKind& kind, const OpenFile& file, bool dryRun, Observer& observer);
