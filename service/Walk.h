#pragma once

#include "service/Observer.h"
#include "service/OpenFile.h"

#include <functional>
#include <string>
#include <utility>

/// Hands out every regular file at or below a path that somebody named, each opened once. Directories are
/// entered by their own descriptors: no symbolic link is followed below the path, and no other file system is
/// entered. What cannot be read is a failure of its own, and the walk goes on.
class Walk {
public:
    using Visit = std::function<void(OpenFile file)>;

    Walk(Observer& observer, Visit visit) : m_observer(observer), m_visit(std::move(visit)) {}

    /// A path to a file hands out that file; one to anything but files and directories is a failure.
    void from(const std::string& path);
    /// Leaves out entries, directories among them, for which this answers true, asked with the path and the
    /// last component of it.
    void leaveOut(std::function<bool(const std::string& path, const std::string& name)> leaveOut) {
        m_leaveOut = std::move(leaveOut);
    }

    /// Hands out nothing more once this answers true.
    void stopWhen(std::function<bool()> isToStop) { m_isToStop = std::move(isToStop); }
    /// Enters no store, whose objects must stay what they are.
    void leaveOutStores() { m_entersStores = false; }

private:
    void directory(const OpenFile& directory, dev_t device);
    void entry(int parent, const char* name, const std::string& path, dev_t device);

    Observer& m_observer;
    Visit m_visit;
    bool m_entersStores = true;
    std::function<bool()> m_isToStop = [] { return false; };
    size_t m_tree = 0; ///< the length of the path that was named
    std::function<bool(const std::string&, const std::string&)> m_leaveOut = [](const auto&, const auto&) {
        return false;
    };
};
