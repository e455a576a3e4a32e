#pragma once

#include "service/serve/ServeRules.h"
#include "tools/qzhsmd/Descriptors.h"

#include <string>
#include <sys/types.h>
#include <vector>

/// What both processes know.
struct Serving {
    ServeRules rules;
    std::vector<std::string> directories;
    Descriptors descriptors;
    pid_t guard = -1; ///< the process that watches over the worker
};

/// Serves until SIGTERM or SIGINT, which must be blocked. If the process that watches over this one dies,
/// another takes its place. What is thrown must end the process at once.
void work(Serving& serving);

/// The arguments with which this program takes over what another process has served.
std::vector<std::string> takeOverArguments(const std::vector<std::string>& directories);
