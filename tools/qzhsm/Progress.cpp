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

Progress::Progress() : m_terminal(::isatty(STDERR_FILENO) == 1), m_start(Clock::now()), m_last(m_start) {}

bool Progress::isDue() {
    if (!m_terminal || Clock::now() - m_last < kInterval)
        return false;
    m_last = Clock::now();
    return true;
}

void Progress::work(long long files, long long bytes) {
    if (isDue())
        draw(std::to_string(files) + " files, " + sizeText(bytes));
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
