#pragma once

#include <cstdint>
#include <ctime>

// Times as texts and records have them: nanoseconds since 1970, negative before.

constexpr std::int64_t kSecond = 1'000'000'000;

constexpr std::int64_t nanoseconds(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * kSecond + time.tv_nsec;
}

constexpr timespec timeOf(std::int64_t nanoseconds) {
    const std::int64_t within = (nanoseconds % kSecond + kSecond) % kSecond;
    return {(nanoseconds - within) / kSecond, within};
}
