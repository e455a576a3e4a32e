#include "tools/qzhsm/Progress.h"

#include "lowlevel/QZHSMLowLevel.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);

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

void put(const std::string& text) {
    QZHSMLowLevel::writeAll(STDERR_FILENO, text.data(), static_cast<int>(text.size()));
}

} // namespace

Progress::Progress() : m_terminal(::isatty(STDERR_FILENO) == 1), m_start(Clock::now()), m_last(m_start) {}

bool Progress::isDue() {
    if (!m_terminal || Clock::now() - m_last < kInterval)
        return false;
    m_last = Clock::now();
    return true;
}

void Progress::bytes(long long done, long long total) {
    constexpr long long kWidth = 40;
    if (!isDue())
        return;
    if (total <= 0)
        return draw(sizeText(done));
    const double part = std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
    const auto filled = static_cast<size_t>(part * kWidth);
    draw('[' + std::string(filled, '#') + std::string(kWidth - filled, '-') + "] " +
         std::to_string(static_cast<int>(part * 100)) + "%  " + sizeText(done) + " of " + sizeText(total));
}

void Progress::files(long long count) {
    if (isDue())
        draw(std::to_string(count) + " files, " +
             std::to_string(static_cast<long long>(static_cast<double>(count) / seconds())) + " a second");
}

void Progress::draw(const std::string& text) {
    m_drawn = true;
    put("\r" + text + "\x1b[K");
}

void Progress::clear() {
    if (m_drawn)
        put("\r\x1b[K");
    m_drawn = false;
}

double Progress::seconds() const {
    return std::chrono::duration<double>(Clock::now() - m_start).count();
}
