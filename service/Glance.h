#pragma once

#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>

// What can be told of a directory's entry that is not opened. No symbolic link is followed.

/// The names of its attributes. Where attributes do not work at all, no file has any.
class EntryAttributes {
public:
    EntryAttributes(int directory, const char* name);

    /// False if there are very many, or they cannot be listed.
    bool areKnown() const { return m_length >= 0; }
    bool contain(std::string_view attribute) const;

private:
    char m_list[256];
    ssize_t m_length;
};

/// The stat of a regular file whose attributes surely may be read; nothing of any other entry.
std::optional<struct stat> statReadable(int directory, const char* name);

/// Whether user attributes surely work on its file system.
bool hasUserAttributes(int directory, const char* name);
