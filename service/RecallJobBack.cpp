#include "service/FileRights.h"
#include "service/Flush.h"
#include "service/RecallJob.h"
#include "service/Repair.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

// The way back from a recall that failed.

void RecallJob::putBack(const Failure& failure, bool isSeen) {
    const std::string& name = m_file.name();
    m_observer.failed(name, failure);
    if (m_ended) // all the data is there, and a stub in its place would carry no mark
        return m_observer.note(name + ": recalled, but its end may not be on the disk");
    QZHSMLowLevel& backEnd = m_kind.backEnd();
    try {
        if (!m_kind.keepsTextInFile() && !m_kind.isStub(m_kind.pathOf(m_file), m_look.st))
            return m_observer.note(name + ": no stub any more, left as it is");
        if (backEnd.restoreDone(m_kind.pathOf(m_file).c_str(), false, {}) < 0)
            m_observer.failed(name, Failure(backEnd));
        if (m_isChanged || (m_kind.keepsTextInFile() && !m_isMoved && !isSame()))
            return leaveToUser();
        if (m_kept && (isSeen || m_look.kept)) // what an earlier recall has left may have been seen too
            return m_observer.note(name + ": half recalled, to be recalled again");
        if (m_written && !m_kind.keepsTextInFile()) {
            putTimesBack();
            return m_observer.note(name + ": still a stub, to be recalled again");
        }
        if (m_written && !m_kept) {
            if (m_pageWritten)
                putTextBack();
            punch(static_cast<long long>(endOfPage()), true);
            if (!m_skipsZeros)
                throw Failure(QZHSM_FAILURE, name + ": what was written cannot be taken out again");
        } else if (m_written) {
            m_kind.putBack(m_file.path(), {m_look.text.begin(), m_look.text.end()},
                           std::max(m_look.recordedSize, static_cast<long long>(m_look.text.size())));
        }
        if (m_written) {
            putRightsBack(m_file, m_capabilities, m_look.st);
            putTimesBack();
        }
        flushOne(flushable(), name);
        if (m_kept)
            dropKeptText(m_file);
        m_observer.note(name +
                        (m_written ? ": the stub was put back as it was" : ": the stub was not touched"));
    } catch (const Failure& further) {
        m_observer.failed(name, further);
        m_observer.note(name + (m_kept || !m_pageWritten ? ": half recalled, to be recalled again"
                                                         : ": its stub text was: " + m_look.text));
    }
}

/// Before any data goes, for nothing else tells where it is.
void RecallJob::putTextBack() {
    std::vector<char> page(m_look.text.begin(), m_look.text.end());
    page.resize(std::min(endOfPage(), std::max(page.size(), static_cast<size_t>(m_look.st.st_size))));
    TransparentFile file(m_kind.backEnd(), m_kind.pathOf(m_file), O_WRONLY);
    file.write(page, 0);
    file.close();
    if (::truncate(m_file.path().c_str(), m_look.st.st_size) < 0) // end() may have shortened it
        throw systemFailure("Failed to give its length back to ", m_file.name(), errno);
    flushOne(flushable(), m_file.name());
}

/// What a user did to the file meanwhile stays. Nor does the next recall go on over it: the text that is kept
/// is no longer that of a recall. No time goes with it, for no time that a user may set makes the file whole.
void RecallJob::leaveToUser() {
    if (m_kept && m_size > 0 && m_file.stat().st_size == 0) // he has given the data up
        makePlain(m_kind, m_file, m_look);
    else if (m_kept && (m_written || m_look.kept))
        keepText(m_file, {m_look.text, false, timeOfData(), true});
    else if (m_kept)
        dropKeptText(m_file);
    flushOne(flushable(), m_file.name());
    m_observer.note(m_file.name() + (m_kept || !m_pageWritten
                                         ? ": left as it is"
                                         : ": left as it is; its stub text was: " + m_look.text));
}
