#pragma once

#include "service/FileState.h"
#include "service/Observer.h"
#include "service/kinds/StubKind.h"
#include "service/stores/Store.h"

#include <string>

/// The archiving of one file, step by step. Between two steps everything is to be flushed; whatever ends the
/// process in the meantime, the data is in the file or can be recalled:
///
///  1. `put`: the data goes to the store, unless it is there already;
///  2. `keep`: the text of the stub to be is kept in the file's attribute;
///  3. `stub`: the file becomes a stub;
///  4. `end`: the kept text goes.
///
/// What a step throws leaves the file as it was, or, if its data is gone, a stub.
class ArchiveJob {
public:
    ArchiveJob(StubKind& kind, OpenFile file);

    /// What the file was before anything was done to it.
    const FileLook& look() const { return m_look; }

    /// Throws code 3 if somebody else has the file open, or changed it while it was read.
    void put(Store& store, const OnBytes& onBytes);
    /// The end for a file that keeps its data: it carries the object's name from now on.
    void note();
    void keep();
    void stub();
    void end();

    const OpenFile& file() const { return m_file; }
    int flushable() const { return m_flushable.get(); }

private:
    UniqueFd openData() const;
    void requireClosed() const;
    void requireUnchanged(const struct stat& since) const;
    Failure changed() const;
    bool isEmptied();
    void putBackMark();
    void completeText();

    StubKind& m_kind;
    OpenFile m_file;
    FileLook m_look;
    UniqueFd m_flushable;
    UniqueFd m_data;
    ObjectRecord m_record;
    std::optional<ObjectId> m_noted; ///< what it was put as before
    std::string m_meta;
    std::string m_text;
    struct stat m_since {}; ///< what the file was after the last that was done to it here
};
