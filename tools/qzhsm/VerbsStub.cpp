#include "service/MirrorTree.h"
#include "service/SavedStub.h"
#include "service/StubWorker.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/FileCrew.h"
#include "tools/qzhsm/Verbs.h"

#include <utility>

namespace {

struct StubOptions {
    StubRules rules;
    std::string archived;
    std::string archivedIn;
};

/// The work of one run, which begins with the first path.
class Stubbing {
public:
    Stubbing(const CommandLine& line, Report& report, const StubOptions& options)
        : m_shown(report), m_rules(options.rules), m_crew(line, m_shown, 1, [this](StubKind& kind) {
              return std::make_unique<StubWorker>(kind, m_rules, m_seen, m_shown);
          }) {
        if (!options.archivedIn.empty()) {
            m_copies.emplace(options.archivedIn);
            m_crew.walk().leaveOutStores();
            m_rules.copyOf = [this](const OpenFile& file) { return m_copies->counterpartOf(file); };
        } else if (!options.archived.empty()) {
            m_isOne = true;
            m_rules.copyOf = [name = options.archived](const OpenFile&) { return OpenFile::named(name); };
        }
    }

    /// The first path has to wait: a second one makes a list of them.
    void take(const std::string& path) {
        if (m_held && m_isOne)
            throw Failure(QZHSM_FAILURE, "--archived has the data of one file: " + path + " is one too many");
        m_rules.isList |= m_held.has_value();
        if (const auto held = std::exchange(m_held, path))
            give(*held);
    }

    void finish() {
        if (m_held)
            give(*m_held);
        m_crew.finish();
        m_shown.summarise("stubbed");
    }

private:
    void give(const std::string& path) {
        try {
            OpenFile file = OpenFile::named(path);
            if (!m_copies || !S_ISDIR(file.stat().st_mode))
                return m_crew.give(std::move(file));
            m_rules.isList = true;
            m_crew.walk().from(path);
        } catch (const Failure& failure) {
            m_shown.failed(path, failure);
        }
    }

    ShownWork m_shown;
    StubRules m_rules;
    std::optional<MirrorTree> m_copies;
    SeenFiles m_seen;
    FileCrew m_crew;
    std::optional<std::string> m_held;
    bool m_isOne = false; ///< there is the data of one file
};

void addStub(CommandLine& line) {
    struct Options : StubOptions {
        std::unique_ptr<Stubbing> work;
    };
    const auto options = std::make_shared<Options>();
    const auto isNull = std::make_shared<std::function<bool()>>();
    CLI::App* verb = line.addPathsVerb(
        "stub", "Turn files whose data has been archived into stubs: their data is given up",
        [options, isNull, &line](StubKind&, Report& report, const std::string& path) {
            options->rules.isList = (*isNull)();
            if (!options->work)
                options->work = std::make_unique<Stubbing>(line, report, *options);
            options->work->take(path);
        },
        [options](StubKind&, Report&) {
            if (options->work)
                options->work->finish();
        });
    *isNull = [verb] { return verb->count("--null") > 0; };
    addText(verb, "--meta", options->rules.meta,
            "What the stub says about the archived data; at most 4030 bytes, 2047 for the filter driver; for "
            "GlusterFS with \"versionGuid=\" and 32 hexadecimal digits")
        ->option_text("TEXT (required)")
        ->required()
        ->check(
            [](const std::string& text) { return std::string(text.empty() ? "it would lead nowhere" : ""); });
    verb->add_option(
            "--ref-time", options->rules.refTime,
            "The modification time that the file had when it was archived, in seconds since the epoch: "
            "a file modified since is refused. Without it nothing is checked")
        ->option_text("SECONDS");
    CLI::Option* archived =
        addText(verb, "--archived", options->archived,
                "The archived copy of the one file: size, modification time and content must be the same");
    archived->option_text("FILE");
    addText(verb, "--archived-in", options->archivedIn,
            "The directory that has such copies under the same paths below each PATH; directories are walked")
        ->option_text("DIR")
        ->excludes(archived);
    verb->add_flag("--force", options->rules.force, "Also files whose stubs would free no room");
    line.addForms(verb, "List the files that were stubbed, each name as it is and ended by NUL");
}

void addBackup(CommandLine& line) {
    struct Options {
        std::string output;
        bool snapshot = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathVerb("backup", "Save a stub's data", "PATH", "The stub",
                                      [options](StubKind& kind, Report& report, const std::string& path) {
                                          const OpenFile file = OpenFile::named(path);
                                          const std::vector<char> data = file.as(
                                              [&] { return saveStub(kind, file, options->snapshot); });
                                          const std::string& output = options->output;
                                          if (output.empty())
                                              return report.raw({data.data(), data.size()});
                                          writeSavedStub(output, data, file);
                                      });
    addText(verb, "-o,--output", options->output, "Write to this file instead of standard output")
        ->option_text("FILE");
    verb->add_flag("--snapshot", options->snapshot, "The stub lies in a snapshot of the file system");
}

void addRestore(CommandLine& line) {
    struct Options {
        std::string saved;
        bool force = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb =
        line.addPathVerb("restore-stub", "Make a stub again from its saved data", "PATH",
                         "The stub to be: missing, or an empty file",
                         [options](StubKind& kind, Report&, const std::string& path) {
                             restoreStub(kind, path, readSavedStub(options->saved), options->force);
                         });
    addText(verb, "FILE", options->saved, "What \"qzhsm backup\" saved")->required()->option_text(" ");
    verb->add_flag("--force", options->force, "Also replace a file that holds data");
}

void addSetTimes(CommandLine& line) {
    struct Options {
        long atime = 0;
        long mtime = 0;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "set-times", "Set access and modification times, in seconds since the epoch",
        [options](StubKind& kind, Report&, const std::string& path) {
            QZHSMLowLevel& backEnd = kind.backEnd();
            checked(backEnd, backEnd.setAMCTime(path.c_str(), options->atime, options->mtime, 0));
        });
    const auto addTime = [&](const char* name, long& target, const char* help) {
        verb->add_option(name, target, help)->option_text("SECONDS (required)")->required();
    };
    addTime("--atime", options->atime, "The access time");
    addTime("--mtime", options->mtime, "The modification time");
}

} // namespace

void addStubVerbs(CommandLine& line) {
    addStub(line);
    addBackup(line);
    addRestore(line);
    addSetTimes(line);
}
