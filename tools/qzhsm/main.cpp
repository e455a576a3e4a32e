#include "lowlevel/QZHSMLowLevelCtx.h"
#include "tools/qzhsm/BackEnds.h"
#include "tools/qzhsm/Verbs.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <sstream>
#include <unistd.h>

namespace {

constexpr int kKindDriverless = 2;
constexpr int kWrongUsage = 2;
constexpr int kMany = 1 << 20;

using Action = std::function<void(QZHSMLowLevel&, Report&)>;
using PathAction = std::function<void(QZHSMLowLevel&, Report&, const std::string&)>;

/// Goes on with the next path after a failure.
template <class Paths>
void forEach(Paths nextPath, QZHSMLowLevel& backEnd, Report& report, const PathAction& action) {
    for (std::string path; nextPath(path);) {
        try {
            requirePath(backEnd, path);
            action(backEnd, report, path);
        } catch (const OutputFailure&) {
            throw;
        } catch (const Failure& failure) {
            report.failure(failure);
        }
    }
}

class CommandLine {
public:
    CommandLine();

    /// Throws what the parser throws, which may be a call for help.
    void parse(int argc, char** argv);
    /// The text that answers a call for help or for the version.
    std::string answer(const CLI::Success& call) const {
        std::ostringstream text;
        m_app.exit(call, text, text);
        return text.str();
    }
    bool isJson() const { return m_json; }
    void run(Report& report);

private:
    CLI::App* addVerb(const std::string& name, const std::string& help, const Action& action);
    /// A verb for any number of paths.
    CLI::App* addPathVerb(const std::string& name, const std::string& help, const PathAction& action);
    void addJson(CLI::App* verb) { verb->add_flag("--json", m_json, "Print JSON, one object a line"); }

    CLI::App m_app{
        "Stubs of a hierarchical storage management service: looks at them, makes and recalls them", "qzhsm"};
    Action m_action;

    CLI::Option* m_fs;
    std::string m_fsName;
    int m_kind = kKindDriverless;
    bool m_json = false;
    bool m_snapshot = false;
    bool m_force = false;
    std::string m_path;
    std::string m_meta;
    std::string m_file;
    std::optional<long> m_refTime;
    long m_atime = 0;
    long m_mtime = 0;
};

/// Text arrives as it was typed, where the parser's own conversion would take "{}" for an empty list.
CLI::Option* addText(CLI::App* app, const std::string& name, std::string& target, const std::string& help) {
    const auto assign = [&target](const CLI::results_t& values) {
        target = values.front();
        return true;
    };
    return app->add_option(name, assign, help);
}

CLI::App* CommandLine::addVerb(const std::string& name, const std::string& help, const Action& action) {
    CLI::App* verb = m_app.add_subcommand(name, help);
    verb->callback([this, action] {
        m_action = [this, action](QZHSMLowLevel& backEnd, Report& report) {
            requirePath(backEnd, m_path);
            action(backEnd, report);
        };
    });
    return verb;
}

CLI::App* CommandLine::addPathVerb(const std::string& name, const std::string& help,
                                   const PathAction& action) {
    CLI::App* verb = m_app.add_subcommand(name, help);
    // The parser would take a path like "[a,b]" apart if the list were open. One of a great length is left
    // alone, and may be shorter.
    CLI::Option* paths = addText(verb, "PATH", m_path, "The files or directories")
                             ->take_all()
                             ->expected(kMany, CLI::detail::expected_max_vector_size)
                             ->option_text("...");
    const std::string nullHelp = "Read the paths from standard input, separated by NUL";
    CLI::Option* null = verb->add_flag("-0,--null", nullHelp)->excludes(paths);
    verb->callback([this, paths, null, action] {
        if (paths->count() == 0 && null->count() == 0)
            throw CLI::RequiredError("PATH");
        m_action = [paths, null, action](QZHSMLowLevel& backEnd, Report& report) {
            if (null->count() > 0) {
                forEach([](std::string& path) { return !!std::getline(std::cin, path, '\0'); }, backEnd,
                        report, action);
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
                backEnd, report, action);
        };
    });
    return verb;
}

CommandLine::CommandLine() {
    m_app.require_subcommand(1);
    m_app.set_version_flag("--version", "qzhsm " QZHSM_VERSION);
    m_fs =
        addText(&m_app, "--fs", m_fsName, "The back-end by the name of its file system")->option_text("NAME");
    m_app.add_option("--kind", m_kind, "The back-end by its kind; 2, driverless, without either option")
        ->option_text("N")
        ->excludes(m_fs);

    addJson(
        addPathVerb("info", "Tell whether files are stubs, are managed, and how much room they take", info));
    addJson(
        addPathVerb("stat", "Show files as the back-end sees them, symbolic links not followed", showStat));

    CLI::App* verb =
        addPathVerb("stub", "Turn files whose data has been archived into stubs: their data is given up",
                    [this](QZHSMLowLevel& backEnd, Report&, const std::string& path) {
                        stub(backEnd, path, m_meta, m_refTime);
                    });
    addText(verb, "--meta", m_meta,
            "What the stub says about the archived data; at most 4030 bytes, 2047 for the filter driver; for "
            "GlusterFS with \"versionGuid=\" and 32 hexadecimal digits")
        ->option_text("TEXT (required)")
        ->required();
    verb->add_option(
            "--ref-time", m_refTime,
            "The modification time that the file had when it was archived, in seconds since the epoch: "
            "a file modified since is refused. Without it nothing is checked")
        ->option_text("SECONDS");

    verb = addVerb("backup", "Save a stub's data", [this](QZHSMLowLevel& backEnd, Report& report) {
        backup(backEnd, report, m_path, m_file, m_snapshot);
    });
    addText(verb, "PATH", m_path, "The stub")->required()->option_text(" ");
    addText(verb, "-o,--output", m_file, "Write to this file instead of standard output")
        ->option_text("FILE");
    verb->add_flag("--snapshot", m_snapshot, "The stub lies in a snapshot of the file system");

    verb =
        addVerb("restore-stub", "Make a stub again from its saved data",
                [this](QZHSMLowLevel& backEnd, Report&) { restoreStub(backEnd, m_path, m_file, m_force); });
    addText(verb, "PATH", m_path, "The stub to be: missing, or an empty file")->required()->option_text(" ");
    addText(verb, "FILE", m_file, "What \"qzhsm backup\" saved")->required()->option_text(" ");
    verb->add_flag("--force", m_force, "Also replace a file that holds data");

    verb = addVerb("recall", "Give a stub its data back", [this](QZHSMLowLevel& backEnd, Report& report) {
        recall(backEnd, report, m_path, m_file, m_force);
    });
    addText(verb, "PATH", m_path, "The stub")->required()->option_text(" ");
    addText(verb, "--from", m_file, "The file that holds the data, or - for standard input")
        ->option_text("FILE (required)")
        ->required();
    verb->add_flag("--force", m_force, "Also where the sizes are not what the stub records");

    verb = addPathVerb("set-times", "Set access and modification times, in seconds since the epoch",
                       [this](QZHSMLowLevel& backEnd, Report&, const std::string& path) {
                           setTimes(backEnd, path, m_atime, m_mtime);
                       });
    verb->add_option("--atime", m_atime, "The access time")->option_text("SECONDS (required)")->required();
    verb->add_option("--mtime", m_mtime, "The modification time")
        ->option_text("SECONDS (required)")
        ->required();

    const auto silent = [](void (*action)(QZHSMLowLevel&, const std::string&)) {
        return [action](QZHSMLowLevel& backEnd, Report&, const std::string& path) { action(backEnd, path); };
    };
    addPathVerb("watch", "Watch the file systems that hold directories", silent(watch));
    addPathVerb("unwatch", "End watching the file systems that hold directories", silent(unwatch));
    addJson(addPathVerb("watched", "Tell whether directories are watched", watched));
    addVerb("resubmit", "Hand out again the recalls that nobody has served yet",
            [](QZHSMLowLevel& backEnd, Report&) { resubmit(backEnd); });

    addPathVerb("release", "Have Lustre give the data of archived files up (Lustre only)", silent(release));
    addJson(addPathVerb("hsm-state", "Show Lustre's state of files (Lustre only)", hsmState));

    verb = addVerb("scan", "Walk a directory tree: count its files and stubs, list the stubs that do not fit",
                   [this](QZHSMLowLevel& backEnd, Report& report) { scan(backEnd, report, m_path); });
    addText(verb, "DIR", m_path, "The directory")->required()->option_text(" ");
    addJson(verb);
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

void CommandLine::run(Report& report) {
    QZHSMLowLevelCtx registry(m_kind);
    const bool byName = m_fs->count() > 0;
    QZHSMLowLevel* backEnd = byName ? registry.getByFSName(m_fsName.c_str()) : registry.getByFileName("");
    if (!backEnd)
        throw Failure(QZHSM_FAILURE,
                      "There is no back-end for " + (byName ? m_fsName : "kind " + std::to_string(m_kind)));
    requireSight(*backEnd);
    m_action(*backEnd, report);
}

/// A standard descriptor that is closed would be the next file's, and that file would get our messages. What
/// takes its place fails every use.
void occupyStandardDescriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (::fcntl(fd, F_GETFD) < 0)
            ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

int runTool(int argc, char** argv) {
    CommandLine commandLine;
    try {
        commandLine.parse(argc, argv);
    } catch (const CLI::Success& call) {
        Report().raw(commandLine.answer(call));
        return 0;
    } catch (const CLI::ParseError& error) {
        Report().note(error.what());
        Report().note("see qzhsm --help, or qzhsm VERB --help");
        return kWrongUsage;
    }
    Report report(commandLine.isJson());
    try {
        commandLine.run(report);
        report.close();
    } catch (const Failure& failure) {
        report.failure(failure);
    }
    return report.status();
}

} // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    std::ios::sync_with_stdio(false); // with it a read that fails would pass for the end
    std::signal(SIGPIPE, SIG_IGN);    // a closed pipe is reported like any other failure to write
    try {
        return runTool(argc, argv);
    } catch (const Failure& failure) {
        Report().failure(failure);
    } catch (const std::exception& error) {
        Report().note(error.what());
    }
    return 1;
}
