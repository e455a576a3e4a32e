#pragma once

#include "service/kinds/StubKind.h"

#include <optional>
#include <string>
#include <vector>

/// Is told how a recall goes. Its calls come on the recall's own thread.
class RecallObserver {
public:
    RecallObserver() = default;
    RecallObserver(const RecallObserver&) = delete;
    RecallObserver& operator=(const RecallObserver&) = delete;
    virtual ~RecallObserver() = default;

    /// So much of the data is written; `total` is 0 if it is not known.
    virtual void bytes(long long done, long long total) = 0;
    /// A warning, or what a failed recall has made of the stub.
    virtual void note(const std::string& text) = 0;
    /// What the recall failed for, or what else fails after that.
    virtual void failed(const Failure& failure) = 0;
    /// Whether the recall is to be given up. Asked between two pieces, and when a signal interrupts a read.
    virtual bool isInterrupted() const = 0;
};

/// Where a recall's data comes from.
struct RecallSource {
    std::string name;
    UniqueFd file;
    bool isPath; ///< `name` is the file's path, and all of the file is read
};

/// Gives a stub its data back, after which it is an ordinary file.
class Recall {
public:
    /// Throws unless the file is a stub that can be recalled now. With `force` a size that does not fit, and
    /// data that looks like a stub's, are only told.
    Recall(StubKind& kind, std::string path, bool force, RecallObserver& observer);

    /// Throws what stands in the way before the stub is touched. What fails later is told, and the stub put
    /// back. A process that is killed leaves a stub that can be recalled again.
    void run(const RecallSource& source);

private:
    void examine(const RecallSource& source);
    void suspect(const std::string& text);
    void tellLength(const std::string& text);
    void examineLength(long long total, const std::string& source);

    long long write(const RecallSource& source);
    void stopIfInterrupted() const;
    void requireStub();
    bool shorten(long long size);
    void finish();
    void flush() const;
    void putTimesBack();
    void putBack();
    void saveStubData();

    StubKind& m_kind;
    QZHSMLowLevel& m_backEnd;
    std::string m_path;
    bool m_force;
    RecallObserver& m_observer;
    UniqueFd m_lock; ///< keeps other recalls away
    struct stat m_before {};
    std::vector<char> m_stubData;
    long long m_recorded = 0;              ///< the size of the data that the stub stands for
    std::optional<long long> m_sourceSize; ///< if it is known
    bool m_written = false;
    bool m_headWritten = false; ///< the piece that covers a stub's text
    bool m_lengthTold = false;
};
