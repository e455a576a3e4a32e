#include "service/StoreSource.h"
#include "service/Walk.h"
#include "service/stores/DirectoryStore.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/ShownWork.h"
#include "tools/qzhsm/Verbs.h"

namespace {

/// Compares an object with its record: all of it, or its length alone.
void check(Store& store, const ObjectRecord& record, bool quick, Observer& observer) {
    if (quick)
        return;
    std::uint64_t told = 0;
    verifyObject(store, record, [&](std::uint64_t done) {
        observer.bytes(static_cast<long long>(done - told));
        told = done;
    });
}

void verifyStore(Store& store, bool quick, Observer& observer) {
    store.list([&](const ListedObject& listed) {
        const std::string name(listed.object.text());
        try {
            if (listed.leftSince)
                return observer.skipped(name, "it has no record: a crash left it");
            check(store, store.look(listed.object).value(), quick, observer);
            observer.done(name, "whole");
        } catch (const Failure& failure) {
            observer.failed(name, failure);
        }
    });
}

void addVerify(CommandLine& line) {
    struct Options {
        std::string store;
        bool quick = false;
        NamedStores named{};
        std::unique_ptr<Store> opened{};
        std::unique_ptr<ShownWork> shown{};
    };
    const auto options = std::make_shared<Options>();
    const auto begin = [options](Report& report) {
        if (options->shown)
            return;
        options->shown = std::make_unique<ShownWork>(report);
        if (!options->store.empty())
            options->opened = openStore(options->store);
    };
    CLI::App* verb = line.addPathsVerb(
        "verify", "Compare the objects of stubs with their checksums; directories with all that is below",
        [options, begin](StubKind& kind, Report& report, const std::string& path) {
            begin(report);
            Walk walk(*options->shown, [&](const OpenFile& file) {
                file.as([&] {
                    const FileLook look = kind.look(file);
                    if (look.text.empty())
                        return;
                    const StubMetadata metadata = readMetadata(file, look);
                    Store& store = options->opened ? *options->opened : options->named.find(metadata);
                    check(store, findRecord(store, metadata, file, look), options->quick, *options->shown);
                    options->shown->done(file.name(), "whole");
                });
            });
            walk.from(path);
        },
        [options](StubKind&, Report&) {
            if (options->shown)
                options->shown->summarise("whole");
        });
    addText(verb, "--store", options->store, "The store to ask, whatever the stubs say")
        ->option_text("STORE");
    verb->add_flag("--quick", options->quick, "Look at names and lengths only");
    line.addJson(verb);
}

void addStore(CommandLine& line) {
    CLI::App* create = line.addPathVerb(
        "store-create", "Make a store of a directory that is empty or does not exist", "DIR", "The directory",
        [](StubKind&, Report&, const std::string& path) { DirectoryStore::create(path); });
    static_cast<void>(create);
    const auto quick = std::make_shared<bool>(false);
    CLI::App* verify =
        line.addPathVerb("store-verify", "Compare all objects of a store with their records", "STORE",
                         "The store", [quick](StubKind&, Report& report, const std::string& path) {
                             ShownWork shown(report);
                             verifyStore(*openStore(path), *quick, shown);
                             shown.summarise("whole");
                         });
    verify->add_flag("--quick", *quick, "Look at names and lengths only");
    line.addJson(verify);
}

} // namespace

void addStoreVerbs(CommandLine& line) {
    addStore(line);
    addVerify(line);
}
