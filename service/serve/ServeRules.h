#pragma once

#include "platform/watch/Caller.h"

#include <cstdint>
#include <set>
#include <string>

/// How reads of stubs are served: the section [Service] of the configuration.
struct ServeRules {
    bool byRange = false; ///< recall: readers wait for their range only, not for the whole file
    std::set<std::string> rangePrograms;   ///< these do in any case
    std::uint64_t rangeFrom = 64ULL << 20; ///< smaller files are always filled whole; bytes
    std::set<std::string> refusePrograms;  ///< names of programs, or paths of control groups, that get EIO
    std::uint64_t bandwidth = 0;           ///< bytes a second, for all recalls together; 0 is no limit
    int workers = 4;
    std::string runtimeDirectory = "/run/qzhsm"; ///< for sockets and locks

    /// Reads them. Throws `Failure` for a value that makes no sense.
    static ServeRules read();
    /// This alone, whatever else there is.
    static std::string readRuntimeDirectory();

    bool isRefused(const CallerProgram& program, const std::string& controlGroup) const;
    bool isByRange(const CallerProgram& program, std::uint64_t size) const;
};
