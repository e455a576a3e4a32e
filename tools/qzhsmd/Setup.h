#pragma once

#include "tools/qzhsmd/Serving.h"

/// Marks the file systems of the directories, and makes what all processes share. Throws `Failure`.
void setUpService(Serving& serving);
