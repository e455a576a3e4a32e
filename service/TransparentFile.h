#pragma once

#include "service/Failure.h"

#include <span>
#include <string>

/// A stub open for transparent writing. What fails throws `Failure`.
class TransparentFile {
public:
    /// `flags` are open(2)'s.
    TransparentFile(QZHSMLowLevel& backEnd, std::string path, int flags);
    TransparentFile(const TransparentFile&) = delete;
    TransparentFile& operator=(const TransparentFile&) = delete;
    ~TransparentFile();

    /// Writes all the bytes at `offset`.
    void write(std::span<const char> bytes, long long offset);
    void close();

private:
    Failure failedWrite() const;

    QZHSMLowLevel& m_backEnd;
    std::string m_path;
    bool m_open = true;
};
