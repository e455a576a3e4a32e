#pragma once

#include "service/Observer.h"
#include "service/kinds/StubKind.h"

/// The file is whole: what makes it look like a stub goes. Not flushed.
void makePlain(StubKind& kind, const OpenFile& file, const FileLook& look);

/// Leads a file out of whatever state a kill, a power cut or a refusal has left it in, down to the disk, and
/// tells what was done. With `dryRun` only tells what would be done. Throws if there is no way out from here.
void repair(StubKind& kind, const OpenFile& file, bool dryRun, Observer& observer);
