#include "platform/files/utf_files.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <iconv.h>
#include <langinfo.h>
#include <memory>
#include <string_view>
#include <unistd.h>

namespace {

bool isAscii(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

/// False if the path cannot be converted; `out` is then unspecified.
bool convert(const char* codeset, std::string_view utf8, std::string& out) {
    iconv_t opened = iconv_open(codeset, "UTF-8");
    if (opened ==
        reinterpret_cast<iconv_t>(-1)) // NOLINT(performance-no-int-to-ptr): iconv's own failure value
        return false;
    const std::unique_ptr<void, int (*)(iconv_t)> converter(opened, iconv_close);

    std::string source(utf8);
    out.resize(utf8.size() * 4 + 16); // room for stateful encodings' shift sequences
    char* from = source.data();
    size_t fromLeft = source.size();
    char* to = out.data();
    size_t toLeft = out.size();
    if (iconv(converter.get(), &from, &fromLeft, &to, &toLeft) != 0 ||
        iconv(converter.get(), nullptr, nullptr, &to, &toLeft) != 0)
        return false; // characters replaced by look-alikes count too: that would be another file's name
    out.resize(out.size() - toLeft);
    return true;
}

} // namespace

LocalPath::LocalPath(const char* utf8) : m_unchanged(utf8) {
    if (isAscii(utf8)) // asked before the locale is: nearly every path
        return;
    const char* codeset = nl_langinfo(CODESET);
    if (std::strcmp(codeset, "UTF-8") != 0 && convert(codeset, utf8, m_converted))
        m_unchanged = nullptr;
}

void utfToMbe(const char* utf8, std::string* out) {
    *out = LocalPath(utf8).c_str();
}

int stat_utf(const char* path, struct stat* st) {
    return ::stat(LocalPath(path).c_str(), st);
}

int lstat_utf(const char* path, struct stat* st) {
    return ::lstat(LocalPath(path).c_str(), st);
}

int open_utf(const char* path, int flags) {
    return ::open(LocalPath(path).c_str(), flags);
}

int open_utf(const char* path, int flags, mode_t mode) {
    return ::open(LocalPath(path).c_str(), flags, mode);
}

int utime_utf(const char* path, const struct utimbuf* times) {
    return ::utime(LocalPath(path).c_str(), times);
}

int unlink_utf(const char* path) {
    return ::unlink(LocalPath(path).c_str());
}
