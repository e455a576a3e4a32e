#pragma once

#include "tools/qzhsmd/Serving.h"

/// Serves until SIGTERM or SIGINT, which must be blocked. What is thrown must end the process at once.
void runWorker(Serving& serving);
