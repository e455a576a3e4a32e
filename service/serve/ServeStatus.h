#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What the service is at, and what it has done since it began.
struct ServeStatus {
    struct Running {
        std::string path;
        std::string cause; ///< the program that read first, and its process
        std::uint64_t waiting = 0;
        std::uint64_t bytes = 0; ///< that are there
        double seconds = 0;
    };

    std::uint64_t waiting = 0; ///< accesses
    std::uint64_t queued = 0;  ///< stubs that nobody works on
    std::uint64_t accesses = 0;
    std::uint64_t recalled = 0; ///< stubs
    std::uint64_t failed = 0;
    std::uint64_t refused = 0; ///< accesses by programs that must not cause recalls
    std::uint64_t bytes = 0;
    std::string lastFailure{};
    std::uint64_t stubs = 0;        ///< that are waited for or recalled
    std::vector<Running> running{}; ///< these, or as many as there is room for, the oldest first

    /// One JSON object in one line; paths as `percentText` has them. It is a message of the socket, which
    /// bounds its length: it lists only as many of `running`.
    std::string toJson(const std::vector<std::string>& directories) const;
    /// Prometheus' text form.
    std::string toMetrics() const;
};
