#pragma once

#include <cstdint>
#include <ctime>

// Times as texts and records have them: nanoseconds since 1970, negative before. There are some 292 years
// either way; what is beyond counts as their end.

constexpr std::int64_t kSecond = 1'000'000'000;

constexpr bool isRecordable(const timespec& time) {
    constexpr std::int64_t kMost = INT64_MAX / kSecond - 1;
    return time.tv_sec >= -kMost && time.tv_sec <= kMost;
}

constexpr std::int64_t nanoseconds(const timespec& time) {
    if (!isRecordable(time))
        return time.tv_sec < 0 ? INT64_MIN : INT64_MAX;
    return static_cast<std::int64_t>(time.tv_sec) * kSecond + time.tv_nsec;
}

constexpr bool isSameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

constexpr timespec timeOf(std::int64_t nanoseconds) {
    const std::int64_t within = (nanoseconds % kSecond + kSecond) % kSecond;
    return {(nanoseconds - within) / kSecond, within};
}
