#pragma once

#include "service/KeptText.h"
#include "service/OpenFile.h"

#include <optional>
#include <string>
#include <sys/stat.h>

/// What a driverless file is: a plain file, a stub, or one of the states in between that a kill, a power cut
/// or a refusal can leave. Each has one way out, which `repair` takes.
enum class FileState {
    Plain,       ///< an ordinary file
    Stub,        ///< a good stub
    ChangedStub, ///< a stub that somebody has written to, truncated or extended since
    MarkedWhole, ///< marked as a stub, with data that is no stub text: stubbing was refused or ended in time,
                 ///< or somebody replaced a stub's content
    Emptied,     ///< emptied on the way to a stub; its text, or the end of it, is missing from the file, and
                 ///< is kept in the attribute
    Lost,        ///< marked as a stub, empty, with a torn text or with holes, and nothing on it tells where
                 ///< the data is
    HalfRecalled, ///< a recall did not come to its end
    Leftover,     ///< a plain and whole file that still carries kept text
    HalfMarked,   ///< GlusterFS: carries one to four of a stub's five attributes
    Copy,         ///< holds a stub's text and no data, but carries no mark: a copy of a stub
};

/// The state's name for people, "half recalled" for instance.
const char* nameOf(FileState state);

/// Whether the file is in a state that an undisturbed life does not lead to.
bool isOdd(FileState state);

/// What a look at a file tells.
struct FileLook {
    struct stat st {};
    FileState state = FileState::Plain;
    bool attributes = true;         ///< user attributes work on this file system
    bool marked = false;            ///< it carries the mark of a stub
    std::optional<KeptText> kept{}; ///< what is kept in its attribute
    /// The stub's text: the kept one, or else the one in the file. Empty if there is none.
    std::string text{};
    long long recordedSize = 0; ///< that the text tells
    std::string meta{};         ///< the text's metadata
    std::string why{};          ///< what tells that a stub was changed
    bool holdsData = false;     ///< one that is `Lost` does: its own, or what somebody wrote

    /// Whether the back-end takes it for a stub, good or not.
    bool countsAsStub() const {
        return marked || state == FileState::Stub || state == FileState::ChangedStub;
    }
};

/// Throws if the file was changed since that look.
void requireUntouched(const OpenFile& file, const FileLook& look);

constexpr const char* kCopyAdvice = "If it names an object in a store, \"qzhsm adopt\" makes it a stub.";
/// Whether a file that carries no mark may hold a stub's text and nothing else. Such a copy has a block or
/// two, and a hole.
bool mayBeCopy(const struct stat& st);

/// Looks at a file: its mark, what is kept, and, if either is there or `inside` asks for it, its content. On
/// file systems without attributes the content is always looked at. Throws if that cannot be done: what may
/// not be looked at never counts as a plain file.
FileLook lookAt(const OpenFile& file, bool inside);
