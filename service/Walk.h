#pragma once

#include "service/Observer.h"
#include "service/OpenFile.h"

#include <functional>
#include <set>
#include <string>
#include <utility>

class StubKind;

/// An entry of an open directory that is not open itself.
struct Entry {
    int directory; ///< the directory's descriptor
    const char* name;
    const std::string& above; ///< the directory's path

    /// As users know it.
    std::string path() const { return above + (above.ends_with('/') ? "" : "/") + name; }
};

/// A directory below a path that somebody named, found and not yet walked.
struct FoundDirectory {
    OpenFile file;
    dev_t device; ///< of the tree
    size_t tree;  ///< the length of the path that was named
    int depth = 0;
};

/// Hands out every regular file at or below a path that somebody named, each opened once. Directories are
/// entered by their own descriptors: no symbolic link is followed below the path, and no other file system is
/// entered. What cannot be read is a failure of its own, and the walk goes on.
class Walk {
public:
    using Visit = std::function<void(OpenFile file)>;
    /// Answers whether nothing is left to be done with the file, so that it need not be opened.
    using VisitPlain = std::function<bool(const Entry&, const struct stat&)>;

    Walk(Observer& observer, Visit visit) : m_observer(observer), m_visit(std::move(visit)) {}

    /// A path to a file hands out that file; one to anything but files and directories is a failure.
    void from(const std::string& path);
    /// Goes on below a directory that this walk or another one has found.
    void below(const FoundDirectory& found);

    /// Files below a path that are plain at a glance of `kind` are handed to `visit` first.
    void glance(StubKind& kind, VisitPlain visit) {
        m_kind = &kind;
        m_visitPlain = std::move(visit);
    }
    /// Opens files below a path for reading, where that can be done: for a visitor that looks into each, at
    /// once. What a glance has told of their attributes is not asked again.
    void openForReading() { m_reads = true; }
    /// Leaves out entries, directories among them, for which this answers true, asked with the path and the
    /// last component of it.
    void leaveOut(std::function<bool(const std::string& path, const std::string& name)> leaveOut) {
        m_leaveOut = std::move(leaveOut);
    }
    /// Leaves directories for which this answers true to somebody else, who takes them over.
    void handOver(std::function<bool(FoundDirectory& found)> handOver) { m_handOver = std::move(handOver); }
    /// Hands out nothing more once this answers true.
    void stopWhen(std::function<bool()> isToStop) { m_isToStop = std::move(isToStop); }
    /// Enters no store, whose objects must stay what they are.
    void leaveOutStores() { m_entersStores = false; }
    /// The other file systems that were found below the paths, and not entered.
    const std::set<dev_t>& leftOut() const { return m_leftOut; }

private:
    void directory(const FoundDirectory& found);
    void entry(const Entry& entry, unsigned char type, const FoundDirectory& parent);

    Observer& m_observer;
    Visit m_visit;
    StubKind* m_kind = nullptr;
    VisitPlain m_visitPlain;
    bool m_reads = false;
    bool m_entersStores = true;
    std::set<dev_t> m_leftOut;
    std::function<bool()> m_isToStop = [] { return false; };
    std::function<bool(FoundDirectory&)> m_handOver = [](auto&) { return false; };
    std::function<bool(const std::string&, const std::string&)> m_leaveOut;
};
