#include "service/FileIo.h"
#include "service/StoreSource.h"
#include "service/StoreUse.h"
#include "service/Walk.h"
#include "service/stores/DirectoryStore.h"
#include "service/stores/Encoding.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/ShownWork.h"
#include "tools/qzhsm/Verbs.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>

namespace {

constexpr long long kMonth = 30LL * 24 * 60 * 60; // seconds

/// Compares an object with its record: all of it, or its length alone.
void check(Store& store, const ObjectRecord& record, bool quick, const std::string& name,
           Observer& observer) {
    if (quick)
        return;
    observer.started(name, static_cast<long long>(record.size));
    verifyObject(store, record, tellBytes(observer));
}

void verifyStore(Store& store, bool quick, Observer& observer) {
    store.list([&](const ListedObject& listed) {
        const std::string name(listed.object.text());
        try {
            if (listed.leftSince)
                return observer.skipped(name, "it has no record: a crash left it");
            const std::optional<ObjectRecord> record = store.look(listed.object);
            if (!record)
                return observer.skipped(name, "it was removed meanwhile");
            check(store, *record, quick, name, observer);
            observer.done(name, "whole");
        } catch (const Failure& failure) {
            observer.failed(name, failure);
        }
    });
}

/// The store that was named, or else the one that each stub names.
struct Opened {
    std::string store;
    NamedStores named{};
    std::unique_ptr<Store> opened{};
    std::unique_ptr<ShownWork> shown{};

    void begin(Report& report) {
        if (shown)
            return;
        shown = std::make_unique<ShownWork>(report);
        if (!store.empty())
            opened = openStore(store);
    }
    Store& find(const StubMetadata& metadata) { return opened ? *opened : named.find(metadata); }
    void end(const char* done) const {
        if (shown)
            shown->summarise(done);
    }
};

void addVerify(CommandLine& line) {
    struct Options {
        Opened opened{};
        bool quick = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "verify",
        "Compare the objects of stubs, or all objects of a store, with their checksums; directories with all "
        "that is below",
        [options](StubKind& kind, Report& report, const std::string& path) {
            kind.requireStores();
            Opened& opened = options->opened;
            opened.begin(report);
            Walk walk(*opened.shown, [&](const OpenFile& file) {
                file.as([&] {
                    const FileLook look = kind.look(file);
                    if (look.text.empty() && look.marked)
                        throw Failure(QZHSM_FAILURE,
                                      file.name() + " is " + nameOf(look.state) + ": it names no object");
                    if (look.text.empty())
                        return;
                    const StubMetadata metadata = readMetadata(file, look);
                    Store& store = opened.find(metadata);
                    check(store, findRecord(store, metadata, file, look), options->quick, file.name(),
                          *opened.shown);
                    opened.shown->done(file.name(), "whole");
                });
            });
            walk.glance(kind, [](const Entry&, const struct stat&) { return true; });
            walk.from(path);
        },
        [options](StubKind&, Report&) { options->opened.end("whole"); },
        [options](StubKind&, Report& report) {
            if (options->opened.store.empty())
                throw CLI::RequiredError("PATH, or --store to look at all objects of a store");
            options->opened.begin(report);
            verifyStore(*options->opened.opened, options->quick, *options->opened.shown);
            options->opened.end("whole");
        });
    addText(verb, "--store", options->opened.store,
            "The store to ask, whatever the stubs say; without a path all of its objects are compared")
        ->option_text("STORE");
    verb->add_flag("--quick", options->quick, "Look at names and lengths only");
    line.addJson(verb);
}

/// One row for an object; `record` is null for one that has none.
void show(Report& report, const ObjectId& object, const ObjectRecord* record) {
    const std::string name(object.text());
    if (report.isJson()) {
        Json json{{"object", name}};
        if (record)
            json.update({{"path", record->path},
                         {"size", record->size},
                         {"stored", record->stored},
                         {"xxh128", record->checksums.whole}});
        return report.json(json);
    }
    char size[32] = "";
    if (record)
        std::snprintf(size, sizeof size, "%14llu", static_cast<unsigned long long>(record->size));
    report.row("object                                          size  path",
               name +
                   (record ? std::string("  ") + size + "  " + record->path : "               -  no record"));
}

void list(const std::string& storeName, Report& report) {
    const std::unique_ptr<Store> store = openStore(storeName);
    store->list([&](const ListedObject& listed) {
        try {
            const auto record = listed.leftSince ? std::nullopt : store->look(listed.object);
            show(report, listed.object, record ? &*record : nullptr);
        } catch (const Failure& failure) {
            report.failure(failure);
            if (report.isJson())
                report.json(
                    {{"object", listed.object.text()}, {"failed", failure.what()}, {"code", failure.code()}});
        }
    });
}

void addCreate(CommandLine& line) {
    line.addPathVerb("store create", "Make a store of a directory that is empty or does not exist", "DIR",
                     "The directory",
                     [](StubKind&, Report&, const std::string& path) { DirectoryStore::create(path); });
}

void addList(CommandLine& line) {
    const auto store = std::make_shared<std::string>();
    CLI::App* verb = line.addVerb("store list", "List the objects of a store",
                                  [store](StubKind&, Report& report) { list(*store, report); });
    addText(verb, "--store", *store, "The store")->required()->option_text("STORE (required)");
    line.addJson(verb);
}

void addSweep(CommandLine& line) {
    struct Options {
        std::string store;
        std::optional<long long> olderThan{}; ///< seconds
        SweepRules rules{};
        std::set<dev_t> walked{};
        std::set<dev_t> leftOut{}; ///< that were found below
        std::unique_ptr<StoreUse> use{};
        std::unique_ptr<ShownWork> shown{};
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "store gc", "List the objects that no stub in these directories names, or remove them",
        [options](StubKind& kind, Report& report, const std::string& path) {
            if (!options->use) {
                options->use = std::make_unique<StoreUse>(kind);
                options->shown = std::make_unique<ShownWork>(report);
            }
            options->use->addFileSystem(path);
            Walk walk(*options->shown,
                      [&](const OpenFile& file) { file.as([&] { options->use->add(file); }); });
            walk.from(path);
            options->walked.insert(statFollowing(path).st_dev);
            options->leftOut.insert(walk.leftOut().begin(), walk.leftOut().end());
        },
        [options](StubKind&, Report& report) {
            SweepRules& rules = options->rules;
            if (rules.remove && report.status() != 0)
                throw Failure(QZHSM_FAILURE, "Nothing is removed: some files could not be looked at");
            if (rules.remove && !std::ranges::includes(options->walked, options->leftOut))
                throw Failure(QZHSM_FAILURE, "Nothing is removed: there are other file systems below",
                              "Stubs may lie there. Name their directories too.");
            rules.storedBefore = std::time(nullptr) - options->olderThan.value_or(kMonth);
            const std::unique_ptr<Store> store = openStore(options->store);
            sweep(*store, *options->use, rules, *options->shown,
                  [&](const ObjectId& object, const ObjectRecord* record) { show(report, object, record); });
            options->shown->summarise(rules.remove ? "removed" : "not in use");
        });
    addText(verb, "--store", options->store, "The store")->required()->option_text("STORE (required)");
    addAge(verb, options->olderThan, "Only objects stored so long ago; 30d if not given");
    verb->add_flag("--other-file-systems", options->rules.otherFileSystems,
                   "Also objects taken from file systems on which none of the directories lies");
    verb->add_flag("--remove", options->rules.remove, "Remove them");
    line.addJson(verb);
}

void addAdopt(CommandLine& line) {
    struct Options {
        Opened opened{};
        bool force = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "adopt", "Confirm stubs that were moved, copied or restored from a backup: they may have their data",
        [options](StubKind& kind, Report& report, const std::string& path) {
            options->opened.begin(report);
            Walk walk(*options->opened.shown, [&](const OpenFile& file) {
                file.as([&] {
                    const FileLook look = kind.lookForCopy(file);
                    if (look.state == FileState::Plain)
                        return options->opened.shown->skipped(file.name(), "it is no stub");
                    const bool isChanged = look.state == FileState::ChangedStub;
                    if (look.state != FileState::Stub && look.state != FileState::Copy &&
                        !(isChanged && options->force))
                        throw Failure(QZHSM_FAILURE,
                                      "Not adopting " + file.name() + ": it is " + nameOf(look.state));
                    adopt(kind, options->opened.find(readMetadata(file, look)), file, look, options->force);
                    options->opened.shown->done(file.name(), "adopted");
                });
            });
            walk.glance(kind, [&](const Entry& entry, const struct stat& st) {
                if (mayBeCopy(st))
                    return false;
                options->opened.shown->skipped(entry.path(), "it is no stub");
                return true;
            });
            walk.from(path);
        },
        [options](StubKind&, Report&) { options->opened.end("adopted"); });
    addText(verb, "--store", options->opened.store, "The store to ask, whatever the stubs say")
        ->option_text("STORE");
    verb->add_flag("--force", options->force,
                   "Also stubs that were changed, or are of other users' data: their owners get it");
    line.addJson(verb);
}

} // namespace

void addStoreVerbs(CommandLine& line) {
    line.addGroup("store", "Make, list and clear stores");
    addCreate(line);
    addList(line);
    addSweep(line);
    addVerify(line);
    addAdopt(line);
}
