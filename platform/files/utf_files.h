#pragma once

#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utime.h>

/// Converts a UTF-8 path to the locale's multibyte encoding. The path is copied as it is if that encoding is
/// UTF-8, if the path is plain ASCII, or if it cannot be converted.
void utfToMbe(const char* utf8, std::string* out);

/// A UTF-8 path in the locale's encoding, for as long as the object and the given path live. Allocates only
/// if a path has to be converted.
class LocalPath {
public:
    explicit LocalPath(const char* utf8);
    const char* c_str() const { return m_unchanged ? m_unchanged : m_converted.c_str(); }

private:
    const char* m_unchanged;
    std::string m_converted;
};

/// The system calls of the same names, taking UTF-8 paths. Arguments, results and errno are the calls' own.
int stat_utf(const char* path, struct stat* st);
int lstat_utf(const char* path, struct stat* st);
int open_utf(const char* path, int flags);
int open_utf(const char* path, int flags, mode_t mode);
int utime_utf(const char* path, const struct utimbuf* times);
int unlink_utf(const char* path);
