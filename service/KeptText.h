#pragma once

#include "service/OpenFile.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

/// A stub's text, kept in the file's attribute "user.TSTUB" while the text in the file itself is about to
/// come or go. Whatever ends the work in between, the pointer to the data is still there: `backupStub` reads
/// it before the file.
struct KeptText {
    std::string text; ///< the whole stub text, as it stands in the stub
    bool recalling;   ///< kept for a recall; else while a stub is made
    /// The modification time that belongs to the file, which each write into it moves.
    timespec modified;
    /// No purpose and no time stand with it: another program or back-end has put the text there, or what was
    /// begun was left when somebody changed the file.
    bool isAlone = false;
};

/// What is kept in the file's attribute; nothing if there is no such attribute or no stub text in it. Throws
/// if that cannot be learned.
std::optional<KeptText> readKeptText(const OpenFile& file);

/// Keeps a text. False if the file system has no attributes or no room for one of this length, and nothing is
/// kept. What else goes wrong throws, and so does it if an older text stands there, which stays. Not flushed.
bool keepText(const OpenFile& file, const KeptText& kept);

/// The stub text that an attribute's value stands for: without what `keepText` has added to it.
std::vector<char> withoutPurpose(std::vector<char> value);

/// Removes what is kept, if anything. Throws if that fails. Not flushed.
void dropKeptText(const OpenFile& file);
