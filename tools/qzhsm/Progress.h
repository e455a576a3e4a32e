#pragma once

#include <chrono>
#include <string>

/// "12.5 MiB", for people.
std::string sizeText(long long bytes);

/// One line on standard error that is written over again, at most ten times a second; nothing if standard
/// error is no terminal.
class Progress {
public:
    Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { clear(); }

    /// Files and bytes that are done.
    void work(long long files, long long bytes);
    /// A count and its rate.
    void files(long long count);
    /// Takes the line away, before anything else is written to the terminal.
    void clear();

    double seconds() const;

private:
    using Clock = std::chrono::steady_clock;

    bool isDue();
    void draw(const std::string& text);

    bool m_terminal;
    bool m_drawn = false;
    Clock::time_point m_start;
    Clock::time_point m_last;
};
