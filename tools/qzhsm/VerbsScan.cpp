#include "service/FileIo.h"
#include "tools/qzhsm/FileCrew.h"
#include "tools/qzhsm/Verbs.h"

#include <cstdio>
#include <optional>

namespace {

/// Whether a file that carries no mark may hold a stub's text and nothing else. Such a copy has a block or
/// two, and a hole.
bool mayBeCopy(const struct stat& st) {
    constexpr long long kMostBlocks = 4;
    return allocatedBytes(st) < st.st_size && allocatedBytes(st) <= kMostBlocks * st.st_blksize;
}

/// Counts files, and tells of those that do not fit.
class Scan final : public Observer {
public:
    Scan(StubKind& kind, Report& report, bool listStubs)
        : m_kind(kind), m_report(report), m_listStubs(listStubs),
          m_walk(*this, [this](const OpenFile& file) { visit(file); }) {}

    void path(const std::string& path) { m_walk.from(path); }

    void summarise() {
        if (m_report.isQuiet())
            return;
        const double seconds = m_report.progress().seconds();
        const double rate = static_cast<double>(m_files) / seconds;
        if (m_report.isJson())
            return m_report.json({{"files", m_files},
                                  {"stubs", m_stubs},
                                  {"misfits", m_misfits},
                                  {"logical", m_logical},
                                  {"allocated", m_allocated},
                                  {"seconds", seconds},
                                  {"files_per_second", rate}});
        if (m_listStubs)
            return m_report.note(std::to_string(m_files) + " files, " + std::to_string(m_stubs) + " stubs, " +
                                 std::to_string(m_misfits) + " do not fit, " + sizeText(m_logical) + " in " +
                                 sizeText(m_allocated) + " on disk");
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
        line("%-16s  %16s", "that is", (sizeText(m_logical) + " in " + sizeText(m_allocated)).c_str());
        line("%-16s  %16.3f", "seconds", seconds);
        line("%-16s  %16.0f", "files a second", rate);
    }

    // --- What the walk meets ---

    void failed(const std::string&, const Failure& failure) override { m_report.failure(failure); }
    void skipped(const std::string& name, const std::string& reason) override {
        m_report.note(name + " was left out: " + reason);
    }
    void walking(const std::string&) override { m_walked = true; }
    void started(const std::string&, long long) override {}
    void bytes(long long) override {}
    void done(const std::string&, const std::string&) override {}
    void note(const std::string&) override {}

private:
    void visit(const OpenFile& file) {
        const FileLook look = this->look(file);
        ++m_files;
        m_logical += look.st.st_size;
        m_allocated += allocatedBytes(look.st);
        if (m_report.progress().isDue())
            m_report.progress().draw(Progress::files(m_files, m_walked ? 0 : m_report.given()) +
                                     m_report.progress().rate(m_files));
        if (look.countsAsStub()) {
            ++m_stubs;
            if (m_listStubs)
                listStub(file.name(), look);
        }
        if (isOdd(look.state))
            misfit(file.name(), look);
    }

    FileLook look(const OpenFile& file) {
        FileLook look = m_kind.look(file);
        if (look.state == FileState::Plain && look.attributes && m_kind.keepsTextInFile() &&
            mayBeCopy(look.st))
            look = m_kind.look(file, true);
        return look;
    }

    void listStub(const std::string& path, const FileLook& look) {
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
        ++m_misfits;
        m_report.fail();
        const std::string problem = look.why.empty() ? nameOf(look.state) : look.why;
        const std::string text = "does not fit: " + path + ": " + problem;
        if (m_report.isJson())
            m_report.json({{"path", path}, {"state", nameOf(look.state)}, {"problem", problem}});
        else if (m_listStubs) // the list is for other programs
            m_report.note(text);
        else
            m_report.line(text);
    }

    StubKind& m_kind;
    Report& m_report;
    bool m_listStubs;
    Walk m_walk;
    bool m_walked = false;
    long long m_files = 0;
    long long m_stubs = 0;
    long long m_misfits = 0;
    long long m_logical = 0;
    long long m_allocated = 0;
};

} // namespace

void addScanVerb(CommandLine& line) {
    struct Options {
        bool listStubs = false;
        std::optional<Scan> scan;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "scan", "Count files and stubs at or below paths, and tell of what does not fit",
        [options](StubKind& kind, Report& report, const std::string& path) {
            if (!options->scan) {
                allowManyDescriptors();
                options->scan.emplace(kind, report, options->listStubs);
            }
            options->scan->path(path);
        },
        [options](StubKind&, Report&) {
            if (options->scan)
                options->scan->summarise();
        });
    CLI::Option* stubs = verb->add_flag("--stubs", options->listStubs,
                                        "List the stubs, one a line, and tell the rest on standard error");
    line.addForms(verb, "List them each as it is and ended by NUL")->needs(stubs);
}
