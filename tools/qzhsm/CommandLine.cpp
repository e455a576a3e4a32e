#include "tools/qzhsm/CommandLine.h"

#include "lowlevel/QZHSMLowLevelCtx.h"
#include "tools/qzhsm/Verbs.h"

#include <iostream>
#include <memory>
#include <sstream>

namespace {

constexpr int kKindDriverless = 2;
constexpr int kMany = 1 << 20;

/// Does the action on each path that `nextPath` gives.
template <class Paths>
void forEach(Paths nextPath, StubKind& kind, Report& report, const PathAction& action) {
    for (std::string path; nextPath(path);) {
        try {
            kind.requirePath(path);
            action(kind, report, path);
        } catch (const OutputFailure&) {
            throw;
        } catch (const Failure& failure) {
            report.failure(failure);
        }
    }
}

} // namespace

CommandLine::CommandLine()
    : m_app("Stubs of a hierarchical storage management service: looks at them, makes and recalls them",
            "qzhsm"),
      m_fs(addText(&m_app, "--fs", m_fsName, "The back-end by the name of its file system")),
      m_kind(kKindDriverless) {
    m_app.require_subcommand(1);
    m_app.set_version_flag("--version", "qzhsm " QZHSM_VERSION);
    m_fs->option_text("NAME");
    m_app.add_option("--kind", m_kind, "The back-end by its kind; 2, driverless, without either option")
        ->option_text("N")
        ->excludes(m_fs);

    addQueryVerbs(*this);
    addStubVerbs(*this);
    addArchiveVerbs(*this);
    addRecallVerb(*this);
    addStoreVerbs(*this);
    addWatchVerbs(*this);
    addLustreVerbs(*this);
    addScanVerb(*this);
    addServiceVerbs(*this);
}

CLI::Option* addText(CLI::App* verb, const std::string& name, std::string& target, const std::string& help) {
    const auto assign = [&target](const CLI::results_t& values) {
        target = values.front();
        return true;
    };
    return verb->add_option(name, assign, help);
}

CLI::Option* addAge(CLI::App* verb, std::optional<long long>& seconds, const std::string& help) {
    const std::map<std::string, long long> units{
        {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}, {"w", 604800}};
    return verb->add_option("--older-than", seconds, help)
        ->transform(CLI::AsNumberWithUnit(units))
        ->option_text("AGE");
}

void CommandLine::addJson(CLI::App* verb) {
    verb->add_flag("--json", m_json, "Print JSON, one object a line");
}

CLI::App* CommandLine::newVerb(const std::string& name, const std::string& help) {
    const size_t blank = name.find(' ');
    if (blank == std::string::npos)
        return m_app.add_subcommand(name, help);
    return m_groups.at(name.substr(0, blank))->add_subcommand(name.substr(blank + 1), help);
}

void CommandLine::addGroup(const std::string& name, const std::string& help) {
    m_groups[name] = m_app.add_subcommand(name, help)->require_subcommand(1);
}

CLI::App* CommandLine::addVerb(const std::string& name, const std::string& help, const Action& action) {
    CLI::App* verb = newVerb(name, help);
    verb->callback([this, action] { m_action = action; });
    return verb;
}

CLI::App* CommandLine::addPathVerb(const std::string& name, const std::string& help, const std::string& what,
                                   const std::string& whatHelp, const PathAction& action) {
    const auto path = std::make_shared<std::string>();
    CLI::App* verb = addVerb(name, help, [path, action](StubKind& kind, Report& report) {
        kind.requirePath(*path);
        action(kind, report, *path);
    });
    addText(verb, what, *path, whatHelp)->required()->option_text(" ");
    return verb;
}

CLI::App* CommandLine::addPathsVerb(const std::string& name, const std::string& help,
                                    const PathAction& action) {
    return addPathsVerb(name, help, action, [](StubKind&, Report&) {});
}

CLI::App* CommandLine::addPathsVerb(const std::string& name, const std::string& help,
                                    const PathAction& action, const Action& finish, const Action& none) {
    CLI::App* verb = newVerb(name, help);
    // The parser would take a path like "[a,b]" apart if the list were open. One of a great length is left
    // alone, and may be shorter.
    CLI::Option* paths =
        verb->add_option(
                "PATH", [](const CLI::results_t&) { return true; }, "The files or directories")
            ->take_all()
            ->expected(kMany, CLI::detail::expected_max_vector_size)
            ->option_text("...");
    const std::string nullHelp = "Read the paths from standard input, separated by NUL";
    CLI::Option* null = verb->add_flag("-0,--null", nullHelp)->excludes(paths);
    verb->callback([this, paths, null, action, finish, none] {
        if (paths->count() == 0 && null->count() == 0) {
            if (!none)
                throw CLI::RequiredError("PATH");
            m_action = none;
            return;
        }
        m_action = [paths, null, action, finish](StubKind& kind, Report& report) {
            if (null->count() > 0) {
                forEach([](std::string& path) { return !!std::getline(std::cin, path, '\0'); }, kind, report,
                        action);
                finish(kind, report);
                if (std::cin.bad())
                    throw Failure(QZHSM_FAILURE, "Failed to read from standard input");
                return;
            }
            auto next = paths->results().begin();
            const auto end = paths->results().end();
            forEach(
                [&](std::string& path) {
                    if (next == end)
                        return false;
                    path = *next++;
                    return true;
                },
                kind, report, action);
            finish(kind, report);
        };
    });
    return verb;
}

void CommandLine::parse(int argc, char** argv) {
    try {
        m_app.parse(argc, argv);
    } catch (const CLI::RequiredError&) {
        // A verb that does not exist is named rather than missed.
        const std::vector<std::string> unknown = m_app.remaining();
        if (m_app.get_subcommands().empty() && !unknown.empty())
            throw CLI::ExtrasError("qzhsm", unknown);
        throw;
    }
}

std::string CommandLine::answer(const CLI::Success& call) const {
    std::ostringstream text;
    m_app.exit(call, text, text);
    return text.str();
}

OwnBackEnd::OwnBackEnd(const std::string& fsName, int kind) : m_registry(kind) {
    QZHSMLowLevel* backEnd =
        fsName.empty() ? m_registry.getByFileName("") : m_registry.getByFSName(fsName.c_str());
    if (!backEnd)
        throw Failure(QZHSM_FAILURE, "There is no back-end for " +
                                         (fsName.empty() ? "kind " + std::to_string(kind) : fsName));
    m_kind = kindOf(*backEnd);
    m_kind->requireSight();
}

void CommandLine::run(Report& report) {
    const std::unique_ptr<OwnBackEnd> own = openBackEnd();
    m_action(own->kind(), report);
}
