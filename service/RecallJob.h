#pragma once

#include "service/DataSource.h"
#include "service/FileState.h"
#include "service/Observer.h"
#include "service/TransparentFile.h"
#include "service/kinds/StubKind.h"

#include <memory>
#include <span>

/// The recall of one stub, step by step. Between two steps everything is to be flushed; whatever ends the
/// process in the meantime, the next recall ends well:
///
///  1. `begin`: the stub's text is kept in the file's attribute, if it has room for it;
///  2. `writeRest`: the data behind the page of the stub's text;
///  3. `writePage`: that page;
///  4. `end`: length, times, mode, capabilities; the mark goes, then the kept text.
///
/// If the text cannot be kept, it stands in its page until step 3, which is alone what makes the file whole.
/// What others do to the file in between, as long as its size or time shows it, ends the recall and stays;
/// and so does what they do before the next one, if it shows in the bytes. A step that throws has to be
/// followed by `putBack`.
class RecallJob {
public:
    RecallJob(StubKind& kind, OpenFile file, bool force, Observer& observer);

    enum class Held {
        ToRecall,
        WasRecalled, ///< but for the last step of that recall, which was taken now: nothing is left to do
    };
    /// Takes hold of the file and looks at it. Throws if it is no stub, or not to be recalled.
    Held hold();
    /// The same, if the file is held already, and was looked at since.
    Held hold(UniqueFd held, FileLook look);
    const FileLook& look() const { return m_look; }

    void begin(std::unique_ptr<DataSource> source);
    void writeRest();
    void writePage();
    void end();

    /// Whether the text is kept. Then these may take the place of steps 2 and 3: the pieces of the source,
    /// each once, in any order, with no flush in between. Readers may be let at what was written, but not
    /// writers.
    bool isKept() const { return m_kept; }
    void beginPieces();
    void writePiece(std::span<const char> bytes, long long offset);
    /// Has the disk begin with what was written there. The flush that follows has less to wait for.
    void startWriting(long long offset, size_t size) const;

    /// Makes the file the stub again that it was, flushed, after a step that failed with `failure`; tells
    /// both. If somebody may be looking at a part of the data, or an earlier recall has left some, that
    /// stays, for the next recall.
    void putBack(const Failure& failure, bool isSeen = false);

    const OpenFile& file() const { return m_file; }
    /// To be flushed after each step, by fsync(2), or syncfs(2) for several jobs of one file system.
    int flushable() const { return m_flushable.get(); }
    long long written() const { return m_total; }

private:
    void failUnlessForced(const std::string& text);
    void examineLength(long long total);
    [[noreturn]] void throwSourceChanged() const;
    void setSize(long long size);
    void tellLonger();
    /// Where the blocks that hold the stub's text end.
    size_t endOfPage() const;
    bool isSame() const;
    void requireUntouched();
    void requireOurs(std::span<const char> data, long long offset) const;
    void pin();
    void noteTime();
    void putTextBack();
    void leaveToUser();
    void write(TransparentFile& file, const char* bytes, size_t count, long long offset) const;
    void punch(long long from, bool mayShorten);
    bool punchHole(long long from, long long count) const;
    timespec timeOfData() const;
    void putTimesBack();

    StubKind& m_kind;
    OpenFile m_file;
    bool m_force;
    Observer& m_observer;
    UniqueFd m_flushable; ///< locked against other recalls
    FileLook m_look;
    std::unique_ptr<DataSource> m_source;
    std::vector<char> m_page;
    std::string m_capabilities;
    long long m_total = 0;
    long long m_size = 0;      ///< that our steps have left
    timespec m_time{};         ///< likewise
    bool m_isMoved = false;    ///< a step of ours has changed it, and not put it back
    bool m_isChanged = false;  ///< by somebody else, meanwhile
    bool m_kept = false;       ///< the text stands in the attribute
    bool m_skipsZeros = false; ///< what is not written is a hole already
    bool m_punchesZeros = false;
    bool m_written = false;
    bool m_pageWritten = false;
    bool m_longerTold = false;
    bool m_ended = false; ///< it is no stub any more
};
