#pragma once

#include <string>
#include <vector>

/// What people should know of the configuration: keys and sections that mean nothing, each with its file and
/// line, and a file that QZHSM_CONFIG names and that is not there. A file that cannot be read, and lines that
/// cannot, are in the log instead.
std::vector<std::string> configWarnings();
