#include "tools/qzhsm/CommandLine.h"

#include "lowlevel/QZHSMLowLevelCtx.h"
#include "service/Spelling.h"
#include "service/serve/ServeRules.h"
#include "tools/qzhsm/ShownWork.h"
#include "tools/qzhsm/Verbs.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <sstream>
#include <unistd.h>

namespace {

constexpr int kKindDriverless = 2;
constexpr int kMany = 1 << 20;

/// Hands out the next path; false after the last.
using NextPath = std::function<bool(std::string& path)>;

/// Does the action on each path that `nextPath` gives.
void forEach(const NextPath& nextPath, StubKind& kind, Report& report, const PathAction& action) {
    for (std::string path; nextPath(path);) {
        try {
            action(kind, report, path);
        } catch (const Failure& failure) {
            report.failure(failure);
        }
    }
}

/// How many paths the list on standard input holds; 0 if only reading it would tell.
long long countOfList() {
    long long count = 0;
    char piece[65536];
    off_t at = ::lseek(STDIN_FILENO, 0, SEEK_CUR);
    if (at < 0)
        return 0;
    char last = '\0';
    for (ssize_t got = 0; (got = ::pread(STDIN_FILENO, piece, sizeof piece, at)) > 0; at += got) {
        count += std::count(piece, piece + got, '\0');
        last = piece[got - 1];
    }
    return last == '\0' ? count : count + 1;
}

/// Throws for a word in a verb's place that is none of the group's verbs.
void requireVerb(const CLI::App& group) {
    std::vector<std::string> verbs;
    for (const CLI::App* verb : group.get_subcommands([](const CLI::App*) { return true; }))
        verbs.push_back(verb->get_name());
    const std::vector<std::string> unknown = group.remaining();
    if (verbs.empty() || unknown.empty())
        return;
    if (unknown.front().starts_with('-'))
        throw CLI::ExtrasError("qzhsm", unknown);
    throw CLI::ParseError("There is no verb \"" + unknown.front() + '"' + suggestion(unknown.front(), verbs),
                          CLI::ExitCodes::ExtrasError);
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
        ->transform(CLI::AsNumberWithUnit(
            units, CLI::AsNumberWithUnit::Options(CLI::AsNumberWithUnit::CASE_SENSITIVE |
                                                  CLI::AsNumberWithUnit::UNIT_REQUIRED)))
        ->check(CLI::NonNegativeNumber)
        ->option_text("AGE");
}

CLI::Option* addJobs(CLI::App* verb, int& jobs, const std::string& help) {
    constexpr int kMostJobs = 64;
    return verb->add_option("-j,--jobs", jobs, help)->check(CLI::Range(1, kMostJobs))->option_text("N");
}

void CommandLine::addJson(CLI::App* verb) {
    verb->add_flag("--json", m_form.json, "Print JSON, one object a line");
}

CLI::Option* CommandLine::addForms(CLI::App* verb, const std::string& help) {
    addJson(verb);
    return verb->add_flag("-z,--null-output", m_form.null, help)->excludes("--json");
}

CLI::App* CommandLine::newVerb(const std::string& name, const std::string& help) {
    const size_t blank = name.find(' ');
    CLI::App* parent = blank == std::string::npos ? &m_app : m_groups.at(name.substr(0, blank));
    CLI::App* verb = parent->add_subcommand(name.substr(blank + 1), help); // all of it without a blank
    verb->add_flag("-q,--quiet", m_form.quiet, "Tell of failures alone: no progress, no summary");
    return verb;
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
    const auto shown = std::make_shared<std::optional<ShownWork>>();
    return addListVerb(
        name, help,
        [action, shown](StubKind& kind, Report& report, const std::string& path) {
            if (!*shown)
                shown->emplace(report);
            try {
                kind.requirePath(path);
                action(kind, report, path);
                (*shown)->counted();
            } catch (const Failure& failure) {
                (*shown)->failed(path, failure);
            }
        },
        [shown](StubKind&, Report&) {
            if (*shown)
                (*shown)->summarise("done");
        });
}

CLI::App* CommandLine::addPathsVerb(const std::string& name, const std::string& help,
                                    const PathAction& action, const Action& finish, const Action& none) {
    return addListVerb(
        name, help,
        [action](StubKind& kind, Report& report, const std::string& path) {
            kind.requirePath(path);
            action(kind, report, path);
        },
        finish, none);
}

CLI::App* CommandLine::addListVerb(const std::string& name, const std::string& help, const PathAction& action,
                                   const Action& finish, const Action& none) {
    CLI::App* verb = newVerb(name, help);
    // The parser would take a path like "[a,b]" apart, but not in a list of bounded length.
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
            const bool isList = null->count() > 0;
            auto next = paths->results().begin();
            const auto end = paths->results().end();
            report.setGiven(isList ? countOfList() : end - next);
            forEach(
                [&](std::string& path) {
                    if (isList)
                        return !!std::getline(std::cin, path, '\0');
                    if (next == end)
                        return false;
                    path = *next++;
                    return true;
                },
                kind, report, action);
            finish(kind, report);
            if (isList && std::cin.bad())
                throw Failure(QZHSM_FAILURE, "Failed to read from standard input");
        };
    });
    return verb;
}

void CommandLine::parse(int argc, char** argv) {
    try {
        m_app.parse(argc, argv);
    } catch (const CLI::RequiredError&) {
        // A verb that does not exist is named rather than missed.
        const std::vector<CLI::App*> given = m_app.get_subcommands();
        const CLI::App& group = given.empty() ? m_app : *given.front();
        if (group.get_subcommands().empty())
            requireVerb(group);
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
    if (!m_kind->keepsTextInFile())
        return;
    m_services = std::make_unique<RecallServiceClient>(ServeRules::readRuntimeDirectory());
    const auto isAnybody = [this] {
        m_services->connectToNew();
        return !m_services->isEmpty();
    };
    m_kind->onAnnounce(isAnybody, [this](int fd) { m_services->heed(fd); });
}

void CommandLine::run(Report& report) {
    const std::unique_ptr<OwnBackEnd> own = openBackEnd();
    m_action(own->kind(), report);
}
