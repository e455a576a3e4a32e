#pragma once

#include "service/FileState.h"
#include "service/kinds/StubKind.h"
#include "service/stores/ObjectId.h"

#include <ctime>
#include <functional>
#include <optional>
#include <string>

/// Making a stub of one file, step by step. Between two steps everything is to be flushed; whatever ends the
/// process in the meantime, the data is in the file or its pointer is, and `repair` leads out:
///
///  1. `hold` and `prepare`: nothing is changed yet;
///  2. `keep`: the text of the stub to be is kept in the file's attribute, if the kind has it in the file;
///  3. `stub`: the file becomes a stub;
///  4. `end`: the kept text goes.
///
/// A step that throws, or cannot be flushed, has to be followed by `giveUp`, which leaves the file as it was,
/// or, if its data is gone, a stub.
class StubJob {
public:
    StubJob(StubKind& kind, OpenFile file);

    /// What the file was before anything was done to it.
    const FileLook& look() const { return m_look; }
    const OpenFile& file() const { return m_file; }
    /// To be flushed after each step.
    int flushable() const { return m_flushable.get(); }
    /// The file, open for reading.
    int data() const { return m_data.get(); }

    /// Throws code 3 if somebody else works on the file or has it open.
    void hold();
    /// Fixes what the stub is to say. `refTime` is the modification time that the file had when it was
    /// archived, by default the one it has. Throws code 3 if the file was changed since `hold`, and whatever
    /// must not become a stub.
    void prepare(const std::string& meta, std::optional<std::time_t> refTime = {});
    void keep();
    void stub();
    void end();
    void giveUp();

protected:
    StubKind& kind() const { return m_kind; }
    /// The object in a store that has the file's data, if one is known.
    const std::optional<ObjectId>& object() const { return m_object; }
    void setObject(const ObjectId& object) { m_object = object; }
    /// Whether the data may be gone.
    bool isMade() const { return m_isMade; }
    void note();
    /// Keeps the text that the stub of a file of `size` bytes is to have.
    void keepText(std::string text, long long size);
    void dropText();
    /// Has the back-end make the stub by `act`, and mends what that leaves.
    void make(const std::string& path, const std::function<int()>& act);
    void flush() const;
    /// Looks at the text that stands in the stub, and writes it if it is not whole.
    void completeText() const;
    /// Whether making the stub has given the data up.
    bool isEmptied() const;

private:
    UniqueFd openData() const;
    void requireClosed() const;
    void requireUnchanged(const struct stat& since) const;
    Failure changed() const;

    StubKind& m_kind;
    OpenFile m_file;
    FileLook m_look;
    UniqueFd m_flushable;
    UniqueFd m_data;
    std::optional<ObjectId> m_object;
    bool m_isNoted = false;   ///< the file carries the object's name
    bool m_keepBegan = false; ///< there may be something to take back
    bool m_isKept = false;    ///< the text, for which there was room
    bool m_isMade = false;    ///< it is a stub, or its data may be gone
    std::string m_meta;
    std::string m_text;
    std::string m_capabilities;
    long long m_size = 0; ///< of the stub to be
    std::time_t m_refTime = 0;
    struct stat m_since {}; ///< what the file was after the last that was done to it here
};
