#include "tools/qzhsm/Progress.h"

#include "lowlevel/QZHSMLowLevel.h"

#include <cstdio>
#include <unistd.h>

namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);

void put(const std::string& text) {
    QZHSMLowLevel::writeAll(STDERR_FILENO, text.data(), static_cast<int>(text.size()));
}

} // namespace

std::string sizeText(long long bytes) {
    constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes);
    const auto* unit = std::begin(kUnits);
    for (; value >= 1024; ++unit)
        value /= 1024;
    char text[32];
    std::snprintf(text, sizeof text, unit == std::begin(kUnits) ? "%.0f %s" : "%.1f %s", value, *unit);
    return text;
}

Progress::Progress(bool shown) : m_shown(shown), m_start(Clock::now()), m_last(m_start) {}

bool Progress::isDue() {
    if (!m_shown)
        return false;
    const std::lock_guard lock(m_mutex);
    if (Clock::now() - m_last < kInterval)
        return false;
    m_last = Clock::now();
    return true;
}

void Progress::draw(const std::string& text) {
    const std::lock_guard lock(m_mutex);
    m_drawn = true;
    put("\r" + text + "\x1b[K");
}

void Progress::clear() {
    const std::lock_guard lock(m_mutex);
    if (m_drawn)
        put("\r\x1b[K");
    m_drawn = false;
}

std::string Progress::files(long long done, long long all) {
    if (all == 0)
        return std::to_string(done) + " files";
    return std::to_string(done) + " of " + std::to_string(all) + " files, " + std::to_string(all - done) +
           " left";
}

std::string Progress::rate(long long done) const {
    return ", " + std::to_string(static_cast<long long>(static_cast<double>(done) / seconds())) + " a second";
}

double Progress::seconds() const {
    return std::chrono::duration<double>(Clock::now() - m_start).count();
}
