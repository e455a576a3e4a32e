#include "service/FileIo.h"
#include "service/SharedWalk.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/Verbs.h"

#include <cstdio>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace {

struct Counts {
    long long files = 0;
    long long stubs = 0;
    long long misfits = 0;
    long long logical = 0;
    long long allocated = 0;

    void operator+=(const Counts& other) {
        files += other.files;
        stubs += other.stubs;
        misfits += other.misfits;
        logical += other.logical;
        allocated += other.allocated;
    }
};

/// What all threads of a scan have found; it tells of what does not fit, and lists the stubs.
class Findings final : public Observer {
public:
    Findings(Report& report, bool listStubs) : m_report(report), m_listStubs(listStubs) {}

    bool isToShow() { return m_report.progress().isDue(); }

    void add(const Counts& counts) {
        const std::lock_guard lock(m_mutex);
        m_counts += counts;
    }

    void show() {
        const std::lock_guard lock(m_mutex);
        m_report.progress().draw(Progress::files(m_counts.files, m_walked ? 0 : m_report.given()) +
                                 m_report.progress().rate(m_counts.files));
    }

    void stub(const std::string& path, const FileLook& look) {
        if (!m_listStubs)
            return;
        const std::lock_guard lock(m_mutex);
        if (m_report.isJson())
            m_report.json({{"path", path},
                           {"state", nameOf(look.state)},
                           {"recorded", look.recordedSize},
                           {"allocated", allocatedBytes(look.st)},
                           {"metadata", look.meta}});
        else if (m_report.isNull())
            m_report.record(path);
        else
            m_report.line(path);
    }

    void misfit(const std::string& path, const FileLook& look) {
        const std::string problem = look.why.empty() ? nameOf(look.state) : look.why;
        const std::string text = "does not fit: " + path + ": " + problem;
        const std::lock_guard lock(m_mutex);
        m_report.fail();
        if (m_report.isJson())
            m_report.json({{"path", path}, {"state", nameOf(look.state)}, {"problem", problem}});
        else if (m_listStubs) // the list is for other programs
            m_report.note(text);
        else
            m_report.line(text);
    }

    void summarise() {
        if (m_report.isQuiet())
            return;
        const double seconds = m_report.progress().seconds();
        const double rate = static_cast<double>(m_counts.files) / seconds;
        if (m_report.isJson())
            return m_report.json({{"files", m_counts.files},
                                  {"stubs", m_counts.stubs},
                                  {"misfits", m_counts.misfits},
                                  {"logical", m_counts.logical},
                                  {"allocated", m_counts.allocated},
                                  {"seconds", seconds},
                                  {"files_per_second", rate}});
        if (m_listStubs)
            return m_report.note(
                std::to_string(m_counts.files) + " files, " + std::to_string(m_counts.stubs) + " stubs, " +
                std::to_string(m_counts.misfits) + " do not fit, " + sizeText(m_counts.logical) + " in " +
                sizeText(m_counts.allocated) + " on disk");
        const auto line = [&](const char* format, const char* name, auto value) {
            char text[80];
            std::snprintf(text, sizeof text, format, name, value);
            m_report.line(text);
        };
        line("%-16s  %16lld", "files", m_counts.files);
        line("%-16s  %16lld", "stubs", m_counts.stubs);
        line("%-16s  %16lld", "that do not fit", m_counts.misfits);
        line("%-16s  %16lld", "logical bytes", m_counts.logical);
        line("%-16s  %16lld", "allocated bytes", m_counts.allocated);
        line("%-16s  %16s", "that is",
             (sizeText(m_counts.logical) + " in " + sizeText(m_counts.allocated)).c_str());
        line("%-16s  %16.3f", "seconds", seconds);
        line("%-16s  %16.0f", "files a second", rate);
    }

    // --- What the walks meet ---

    void failed(const std::string&, const Failure& failure) override {
        const std::lock_guard lock(m_mutex);
        m_report.failure(failure);
    }
    void skipped(const std::string& name, const std::string& reason) override {
        const std::lock_guard lock(m_mutex);
        m_report.note(name + " was left out: " + reason);
    }
    void walking(const std::string&) override {
        const std::lock_guard lock(m_mutex);
        m_walked = true;
    }

private:
    Report& m_report;
    bool m_listStubs;
    std::mutex m_mutex;
    bool m_walked = false;
    Counts m_counts;
};

/// One thread's part of a scan.
class Scanner {
public:
    Scanner(StubKind& kind, Findings& findings)
        : m_kind(kind), m_findings(findings),
          m_walk(findings, [this](const OpenFile& file) { visit(file); }) {
        if (!kind.keepsTextInFile())
            return;
        m_walk.openForReading();
        m_walk.glance(kind, [this](const Entry&, const struct stat& st) {
            if (mayBeCopy(st))
                return false;
            count(st);
            return true;
        });
    }

    Walk& walk() { return m_walk; }

    void tell() { m_findings.add(std::exchange(m_untold, {})); }

private:
    void visit(const OpenFile& file) {
        FileLook look = m_kind.lookForCopy(file);
        if (isOdd(look.state) && file.isReadable()) // perhaps on its way since it was found
            look = m_kind.lookForCopy(OpenFile::of(file.open(O_PATH), file.name()));
        if (look.countsAsStub()) {
            ++m_untold.stubs;
            m_findings.stub(file.name(), look);
        }
        if (isOdd(look.state)) {
            ++m_untold.misfits;
            m_findings.misfit(file.name(), look);
        }
        count(look.st);
    }

    void count(const struct stat& st) {
        ++m_untold.files;
        m_untold.logical += st.st_size;
        m_untold.allocated += allocatedBytes(st);
        const bool isToShow = m_findings.isToShow();
        if (isToShow || m_untold.files == kMostUntold)
            tell();
        if (isToShow)
            m_findings.show();
    }

    static constexpr long long kMostUntold = 256; // so that progress is of all threads

    StubKind& m_kind;
    Findings& m_findings;
    Walk m_walk;
    Counts m_untold;
};

class Scan {
public:
    Scan(const CommandLine& line, StubKind& kind, Report& report, bool listStubs, int count)
        : m_findings(report, listStubs) {
        allowManyDescriptors();
        m_scanners.emplace_back(kind, m_findings);
        while (m_scanners.size() < static_cast<size_t>(count)) {
            m_backEnds.push_back(line.openBackEnd());
            m_scanners.emplace_back(m_backEnds.back()->kind(), m_findings);
        }
        std::vector<Walk*> walks;
        for (Scanner& scanner : m_scanners)
            walks.push_back(&scanner.walk());
        m_walk.emplace(walks);
    }

    void path(const std::string& path) { m_walk->from(path); }

    void finish() {
        m_walk->finish();
        for (Scanner& scanner : m_scanners)
            scanner.tell();
        m_findings.summarise();
    }

private:
    Findings m_findings;
    std::vector<std::unique_ptr<OwnBackEnd>> m_backEnds;
    std::deque<Scanner> m_scanners; ///< their walks point to them
    std::optional<SharedWalk> m_walk;
};

} // namespace

void addScanVerb(CommandLine& line) {
    struct Options {
        bool listStubs = false;
        int workers = 1;
        std::optional<Scan> scan;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "scan", "Count files and stubs at or below paths, and tell of what does not fit",
        [options, &line](StubKind& kind, Report& report, const std::string& path) {
            if (!options->scan)
                options->scan.emplace(line, kind, report, options->listStubs, options->workers);
            options->scan->path(path);
        },
        [options](StubKind&, Report&) {
            if (options->scan)
                options->scan->finish();
        });
    CLI::Option* stubs = verb->add_flag("--stubs", options->listStubs,
                                        "List the stubs, one a line, and tell the rest on standard error");
    addJobs(verb, options->workers,
            "How many directories to look into at once; with more than one nothing is told in order");
    line.addForms(verb, "List them each as it is and ended by NUL")->needs(stubs);
}
