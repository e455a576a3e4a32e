#pragma once

#include <chrono>
#include <mutex>
#include <string>

/// "12.5 MiB", for people.
std::string sizeText(long long bytes);

/// One line on standard error that is written over again, at most ten times a second. Used by all workers
/// together.
class Progress {
public:
    /// With `shown` false nothing is ever due.
    explicit Progress(bool shown);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { clear(); }

    /// Whether it is time to draw anew.
    bool isDue();
    void draw(const std::string& text);
    /// Takes the line away, before anything else is written to the terminal.
    void clear();

    /// So many done, and how many there are if that is known (else 0): "3 of 9 files, 6 left".
    static std::string files(long long done, long long all);
    /// ", 12 a second" for a count.
    std::string rate(long long done) const;
    /// Since the start.
    double seconds() const;

private:
    using Clock = std::chrono::steady_clock;

    bool m_shown;
    std::mutex m_mutex;
    bool m_drawn = false;
    Clock::time_point m_start;
    Clock::time_point m_last;
};
