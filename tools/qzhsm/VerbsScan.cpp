#include "service/FileIo.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/Progress.h"
#include "tools/qzhsm/Verbs.h"

#include <cerrno>
#include <cstdio>
#include <fts.h>
#include <memory>

namespace {

class Scan {
public:
    Scan(StubKind& kind, Report& report) : m_kind(kind), m_report(report) {}

    void walk(std::string directory) {
        char* const roots[] = {directory.data(), nullptr};
        const std::unique_ptr<FTS, int (*)(FTS*)> tree(
            ::fts_open(roots, FTS_PHYSICAL | FTS_COMFOLLOW | FTS_NOCHDIR, nullptr), ::fts_close);
        if (!tree)
            throw systemFailure("Failed to read ", directory, errno);
        errno = 0;
        while (const FTSENT* entry = ::fts_read(tree.get())) {
            try {
                visit(*entry);
            } catch (const OutputFailure&) {
                throw;
            } catch (const Failure& failure) {
                m_progress.clear();
                m_report.failure(failure);
            }
            errno = 0;
        }
        if (errno != 0)
            throw systemFailure("Failed to read ", directory, errno);
        m_progress.clear();
        summarise();
    }

private:
    void visit(const FTSENT& entry) {
        switch (entry.fts_info) {
        case FTS_DNR:
        case FTS_ERR:
        case FTS_NS:
            throw systemFailure("Failed to read ", entry.fts_path, entry.fts_errno);
        case FTS_F:
            if (S_ISREG(entry.fts_statp->st_mode))
                visitFile(entry.fts_path, *entry.fts_statp);
            break;
        default:
            break;
        }
    }

    void visitFile(const std::string& path, const struct stat& st) {
        ++m_files;
        m_logical += st.st_size;
        m_allocated += allocatedBytes(st);
        m_progress.files(m_files);
        m_kind.requirePath(path);
        if (!m_kind.isStub(path, st))
            return;
        ++m_stubs;
        const std::string problem = examineHeader(path, st.st_size);
        if (problem.empty())
            return;
        ++m_misfits;
        m_progress.clear();
        if (m_report.isJson())
            m_report.json({{"path", path}, {"problem", problem}});
        else
            m_report.line("does not fit: " + path + ": " + problem);
    }

    /// What is wrong with a stub's header, or nothing.
    std::string examineHeader(const std::string& path, long long size) {
        std::vector<char> data;
        QZHSMLowLevel& backEnd = m_kind.backEnd();
        if (backEnd.backupStub(path.c_str(), data) < 0) {
            if (backEnd.m_errorCode == QZHSM_NOT_A_STUB || backEnd.m_errorCode == QZHSM_SUCCESS)
                return "no valid header";
            throw Failure(backEnd);
        }
        return misfit(readFacts(data), size);
    }

    void summarise() {
        const double seconds = m_progress.seconds();
        const double rate = static_cast<double>(m_files) / seconds;
        if (m_report.isJson())
            return m_report.json({{"files", m_files},
                                  {"stubs", m_stubs},
                                  {"misfits", m_misfits},
                                  {"logical", m_logical},
                                  {"allocated", m_allocated},
                                  {"seconds", seconds},
                                  {"files_per_second", rate}});
        const auto line = [&](const char* format, const char* name, auto value) {
            char text[80];
            std::snprintf(text, sizeof text, format, name, value);
            m_report.line(text);
        };
        line("%-16s  %16lld", "files", m_files);
        line("%-16s  %16lld", "stubs", m_stubs);
        line("%-16s  %16lld", "that do not fit", m_misfits);
        line("%-16s  %16lld", "logical bytes", m_logical);
        line("%-16s  %16lld", "allocated bytes", m_allocated);
        line("%-16s  %16.3f", "seconds", seconds);
        line("%-16s  %16.0f", "files a second", rate);
    }

    StubKind& m_kind;
    Report& m_report;
    Progress m_progress;
    long long m_files = 0;
    long long m_stubs = 0;
    long long m_misfits = 0;
    long long m_logical = 0;
    long long m_allocated = 0;
};

} // namespace

void addScanVerb(CommandLine& line) {
    line.addJson(line.addPathVerb("scan",
                                  "Walk a directory tree: count its files and stubs, list the stubs that do "
                                  "not fit",
                                  "DIR", "The directory",
                                  [](StubKind& kind, Report& report, const std::string& directory) {
                                      if (!S_ISDIR(statFollowing(directory).st_mode))
                                          throw systemFailure("Failed to read ", directory, ENOTDIR);
                                      Scan(kind, report).walk(directory);
                                  }));
}
