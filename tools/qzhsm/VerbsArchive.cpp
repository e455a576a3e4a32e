#include "service/ArchiveWorker.h"
#include "service/Repair.h"
#include "service/stores/StoreConfig.h"
#include "tools/qzhsm/FileCrew.h"
#include "tools/qzhsm/Verbs.h"

#include <ctime>
#include <fnmatch.h>

namespace {

constexpr const char* kNullHelp = "List the files that were done, each name as it is and ended by NUL";

/// The work of one run, which begins with the first path.
struct Archiving {
    Archiving(const CommandLine& line, StubKind& kind, Report& report, const std::string& storeName,
              ArchiveRules asked, const std::vector<std::string>& excluded, int count)
        : shown(report), store(openStoreForStubs(storeName)), rules(std::move(asked)),
          crew(line, shown, count, [this](StubKind& own) {
              return std::make_unique<ArchiveWorker>(own, *store, rules, seen, shown);
          }) {
        rules.isToStop = isInterrupted;
        crew.walk().stopWhen(isInterrupted);
        crew.walk().leaveOutStores();
        crew.walk().glance(kind, [this](const Entry& entry, const struct stat& st) {
            const std::string reason = rules.reasonToSkip(st);
            if (!reason.empty())
                shown.skipped(entry.path(), reason);
            return !reason.empty();
        });
        crew.walk().leaveOut([excluded](const std::string& path, const std::string& name) {
            return std::ranges::any_of(excluded, [&](const std::string& glob) {
                return ::fnmatch(glob.c_str(),
                                 glob.find('/') == std::string::npos ? name.c_str() : path.c_str(), 0) == 0;
            });
        });
    }

    ShownWork shown;
    std::unique_ptr<Store> store;
    ArchiveRules rules;
    SeenFiles seen;
    FileCrew crew;
};

void addArchive(CommandLine& line) {
    struct Options {
        std::string store;
        std::optional<long long> olderThan; ///< seconds
        std::uint64_t largerThan = 0;
        std::vector<std::string> excluded;
        bool keep = false;
        bool verify = false;
        bool dryRun = false;
        int workers = 1;
        std::unique_ptr<Archiving> work;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "archive", "Put files into a store and turn them into stubs; directories with all that is below",
        [options, &line](StubKind& kind, Report& report, const std::string& path) {
            kind.requireStores();
            if (!options->work) {
                ArchiveRules rules;
                rules.largerThan = static_cast<long long>(options->largerThan);
                if (options->olderThan)
                    rules.modifiedBefore = std::time(nullptr) - *options->olderThan;
                rules.keepData = options->keep;
                rules.readBack = options->verify;
                rules.dryRun = options->dryRun;
                options->work = std::make_unique<Archiving>(line, kind, report, options->store, rules,
                                                            options->excluded, options->workers);
            }
            options->work->crew.walk().from(path);
        },
        [options](StubKind&, Report&) {
            if (!options->work)
                return;
            options->work->crew.finish();
            options->work->shown.summarise(options->dryRun ? "to be archived" : "archived", options->dryRun);
            requireUninterrupted();
        });
    addText(verb, "--store", options->store,
            "The store: the NAME of its section [Store/NAME], or its directory")
        ->required()
        ->option_text("STORE (required)");
    addAge(verb, options->olderThan, "Only files not modified for so long: 90d, 12h, 2w");
    verb->add_option("--larger-than", options->largerThan, "Only files of more bytes: 1M, 64K")
        ->transform(CLI::AsSizeValue(false))
        ->transform([](const std::string& text) {
            if (text.starts_with('-')) // it would count from the top; this is asked before the other
                throw CLI::ValidationError("--larger-than", "a size is never negative");
            return text;
        })
        ->option_text("SIZE");
    verb->add_option(
            "--exclude", options->excluded,
            "Leave out what has such a name, or, if there is a \"/\", such a path from the PATH on as it is "
            "given: */cache/*")
        ->option_text("GLOB")
        ->allow_extra_args(false); // else it would take the paths as well
    verb->add_flag("--keep", options->keep, "Put the data into the store, and turn nothing into stubs");
    verb->add_flag("--verify", options->verify,
                   "Read the data back from the store and compare it, before it leaves the file");
    verb->add_flag("--dry-run", options->dryRun,
                   "Only tell what would be archived: how many files, and with --json or -z which");
    addJobs(verb, options->workers, "How many files to work on at once");
    line.addForms(verb, kNullHelp);
}

void addRepair(CommandLine& line) {
    struct Options {
        bool dryRun = false;
        std::optional<ShownWork> shown;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "repair", "Lead files out of what a kill, a power cut or a refusal has left; directories too",
        [options](StubKind& kind, Report& report, const std::string& path) {
            kind.requireRepair();
            if (!options->shown)
                options->shown.emplace(report);
            Walk walk(*options->shown, [&](const OpenFile& file) {
                file.as([&] {
                    const FileLook look = kind.look(file);
                    if (look.state != FileState::Plain)
                        repair(kind, file, options->dryRun, *options->shown);
                });
            });
            walk.glance(kind, [](const Entry&, const struct stat&) { return true; });
            walk.from(path);
        },
        [options](StubKind&, Report&) {
            if (options->shown)
                options->shown->summarise(options->dryRun ? "to be mended" : "mended", options->dryRun);
        });
    verb->add_flag("--dry-run", options->dryRun, "Only tell what would be done");
    line.addForms(verb, kNullHelp);
}

} // namespace

void addArchiveVerbs(CommandLine& line) {
    addArchive(line);
    addRepair(line);
}
