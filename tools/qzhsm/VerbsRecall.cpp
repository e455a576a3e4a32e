#include "service/FileIo.h"
#include "service/MirrorTree.h"
#include "service/RecallWorker.h"
#include "service/StoreSource.h"
#include "tools/qzhsm/FileCrew.h"
#include "tools/qzhsm/Verbs.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

/// Where the data comes from: a file somebody named, a store somebody named, or the one that the stub names.
struct Sources {
    std::string from;
    std::string fromDir;
    std::string store;
    bool force = false;

    std::unique_ptr<DataSource> find(StubKind& kind, const OpenFile& file, const FileLook& look) {
        if (from == "-")
            return std::make_unique<FileSource>("standard input",
                                                UniqueFd(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)), look.st,
                                                force, isInterrupted);
        if (mirror) {
            const OpenFile source = mirror->counterpartOf(file);
            if (!force && kind.isStubAsSource(kind.pathOf(source), source.stat()))
                throw holdsNothing(source.name());
            return std::make_unique<FileSource>(source.name(), source.open(O_RDONLY), look.st, force,
                                                isInterrupted);
        }
        if (!from.empty() && !force && kind.isStubAsSource(from, statFollowing(from)))
            throw holdsNothing(from);
        if (!from.empty())
            return std::make_unique<FileSource>(from, openForReading(from), look.st, force, isInterrupted);
        kind.requireStores();
        const StubMetadata metadata = readMetadata(file, look);
        Store& found = opened ? *opened : named.find(metadata);
        return std::make_unique<StoreSource>(found, findRecord(found, metadata, file, look), isInterrupted);
    }

    static Failure holdsNothing(const std::string& name) {
        return {QZHSM_FAILURE, name + " is a stub or the copy of one: it holds no data",
                "With --force it is recalled all the same."};
    }

    std::optional<MirrorTree> mirror{};
    NamedStores named{};
    std::unique_ptr<Store> opened{};
};

struct Recalling {
    Recalling(const CommandLine& line, StubKind& kind, Report& report, Sources& sources, int count)
        : shown(report), crew(line, shown, count, [this, &sources](StubKind& own) {
              return std::make_unique<RecallWorker>(
                  own, sources.force, seen,
                  [&sources, &own](const OpenFile& file, const FileLook& look) {
                      return sources.find(own, file, look);
                  },
                  shown);
          }) {
        crew.walk().stopWhen(isInterrupted);
        crew.walk().glance(kind, [this](const Entry& entry, const struct stat& st) {
            shown.skipped(entry.path(), seen.isNew(st) ? RecallWorker::kNoStub : SeenFiles::kReason);
            return true;
        });
        if (!sources.fromDir.empty())
            sources.mirror.emplace(sources.fromDir);
        if (!sources.store.empty())
            sources.opened = openStore(sources.store);
    }

    ShownWork shown;
    SeenFiles seen;
    FileCrew crew;
};

} // namespace

void addRecallVerb(CommandLine& line) {
    struct Options {
        Sources sources;
        int workers = 1;
        std::string only; ///< the path that the data of --from is for
        std::unique_ptr<Recalling> work;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "recall", "Give stubs their data back; directories with all that is below",
        [options, &line](StubKind& kind, Report& report, const std::string& path) {
            if (!options->work)
                options->work =
                    std::make_unique<Recalling>(line, kind, report, options->sources, options->workers);
            if (!options->sources.from.empty() && !std::exchange(options->only, path).empty())
                throw Failure(QZHSM_FAILURE, "--from has the data of one stub: " + path + " is one too many");
            if (!options->sources.from.empty() && S_ISDIR(statFollowing(path).st_mode))
                throw Failure(QZHSM_FAILURE, "--from has the data of one stub: " + path + " is a directory");
            options->work->crew.walk().from(path);
        },
        [options](StubKind&, Report&) {
            if (!options->work)
                return;
            options->work->crew.finish();
            options->work->shown.summarise("recalled");
            requireUninterrupted();
        });
    CLI::Option* from = addText(verb, "--from", options->sources.from,
                                "Take the data from this file, or - for standard input, not from a store");
    from->option_text("FILE")->check([verb](const std::string& file) -> std::string {
        return file == "-" && verb->count("--null") > 0 ? "standard input holds the paths" : "";
    });
    CLI::Option* fromDir =
        addText(verb, "--from-dir", options->sources.fromDir,
                "Take the data from files under the same paths below this directory as below each PATH");
    fromDir->option_text("DIR")->excludes(from);
    addText(verb, "--store", options->sources.store, "The store to ask, whatever the stubs say")
        ->option_text("STORE")
        ->excludes(from)
        ->excludes(fromDir);
    verb->add_flag("--force", options->sources.force,
                   "Also stubs that were changed, and data of another length than the stub records");
    addJobs(verb, options->workers, "How many files to work on at once");
    line.addForms(verb, "List the files that were recalled, each name as it is and ended by NUL");
}
