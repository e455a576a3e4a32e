#pragma once

#include "lowlevel/QZHSMLowLevelCtx.h"
#include "service/kinds/StubKind.h"
#include "service/serve/RecallServiceClient.h"
#include "tools/qzhsm/Report.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

/// What a verb does. What fails throws `Failure`.
using Action = std::function<void(StubKind&, Report&)>;
using PathAction = std::function<void(StubKind&, Report&, const std::string& path)>;

/// A back-end of a worker's own, with the registry that it belongs to.
class OwnBackEnd {
public:
    /// By name, or by kind if the name is empty. Throws if it cannot be made, or could not see its stubs.
    OwnBackEnd(const std::string& fsName, int kind);

    StubKind& kind() { return *m_kind; }

private:
    QZHSMLowLevelCtx m_registry;
    std::unique_ptr<StubKind> m_kind;
    std::unique_ptr<RecallServiceClient>
        m_services; ///< that must not recall what we look at, or make a stub of
};

/// The verbs, and the options that come before them. A verb's own options are its file's business: they live
/// in an object that its action shares.
class CommandLine {
public:
    CommandLine();

    // --- For the files that add verbs (Verbs.h) ---

    /// "store list" is the verb "list" of the group "store", whose help was given by `addGroup`.
    CLI::App* addVerb(const std::string& name, const std::string& help, const Action& action);
    void addGroup(const std::string& name, const std::string& help);
    /// A verb for one path, which its usage calls `what`.
    CLI::App* addPathVerb(const std::string& name, const std::string& help, const std::string& what,
                          const std::string& whatHelp, const PathAction& action);
    /// A verb for any number of paths, given as arguments or on standard input. It goes on with the next path
    /// after a failure, and tells in the end how many were done.
    CLI::App* addPathsVerb(const std::string& name, const std::string& help, const PathAction& action);
    /// The same for work that goes on after the last path was given; `finish` then brings it to its end. The
    /// verb tells itself, by `ShownWork` perhaps, how the work goes. With `none` it may be given without a
    /// path, and does that.
    CLI::App* addPathsVerb(const std::string& name, const std::string& help, const PathAction& action,
                           const Action& finish, const Action& none = {});
    /// --json.
    void addJson(CLI::App* verb);
    /// --json, and --null-output, which `help` tells of. Gives the latter.
    CLI::Option* addForms(CLI::App* verb, const std::string& help);

    // --- For the program ---

    /// Throws what the parser throws, which may be a call for help.
    void parse(int argc, char** argv);
    /// The text that answers a call for help or for the version.
    std::string answer(const CLI::Success& call) const;
    const OutputForm& form() const { return m_form; }
    /// Does what the verb says, with the back-end that was chosen.
    void run(Report& report);

    /// One more back-end like the one that was chosen.
    std::unique_ptr<OwnBackEnd> openBackEnd() const { return std::make_unique<OwnBackEnd>(m_fsName, m_kind); }

private:
    CLI::App* newVerb(const std::string& name, const std::string& help);
    CLI::App* addListVerb(const std::string& name, const std::string& help, const PathAction& action,
                          const Action& finish, const Action& none = {});

    CLI::App m_app;
    std::map<std::string, CLI::App*, std::less<>> m_groups;
    Action m_action; ///< of the verb that was given
    CLI::Option* m_fs;
    std::string m_fsName;
    int m_kind;
    OutputForm m_form;
};

/// An option or argument that is text as it was typed. (The parser's own conversion takes "{}" for an empty
/// list.)
CLI::Option* addText(CLI::App* verb, const std::string& name, std::string& target, const std::string& help);
/// --older-than: an age like 90d, 12h or 2w, in seconds.
CLI::Option* addAge(CLI::App* verb, std::optional<long long>& seconds, const std::string& help);
/// -j, --jobs: how many threads are to work.
CLI::Option* addJobs(CLI::App* verb, int& jobs, const std::string& help);
