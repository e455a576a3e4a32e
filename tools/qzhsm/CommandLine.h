#pragma once

#include "lowlevel/QZHSMLowLevelCtx.h"
#include "service/kinds/StubKind.h"
#include "tools/qzhsm/Report.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
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
};

/// The verbs, and the options that come before them. A verb's own options are its file's business: they live
/// in an object that its action shares.
class CommandLine {
public:
    CommandLine();

    // --- For the files that add verbs (Verbs.h) ---

    CLI::App* addVerb(const std::string& name, const std::string& help, const Action& action);
    /// A verb for one path, which its usage calls `what`.
    CLI::App* addPathVerb(const std::string& name, const std::string& help, const std::string& what,
                          const std::string& whatHelp, const PathAction& action);
    /// A verb for any number of paths, given as arguments or on standard input. It goes on with the next path
    /// after a failure.
    CLI::App* addPathsVerb(const std::string& name, const std::string& help, const PathAction& action);
    /// The same for work that goes on after the last path was given; `finish` then brings it to its end.
    CLI::App* addPathsVerb(const std::string& name, const std::string& help, const PathAction& action,
                           const Action& finish);
    void addJson(CLI::App* verb);

    // --- For the program ---

    /// Throws what the parser throws, which may be a call for help.
    void parse(int argc, char** argv);
    /// The text that answers a call for help or for the version.
    std::string answer(const CLI::Success& call) const;
    bool isJson() const { return m_json; }
    /// Does what the verb says, with the back-end that was chosen.
    void run(Report& report);

    /// One more back-end like the one that was chosen.
    std::unique_ptr<OwnBackEnd> openBackEnd() const { return std::make_unique<OwnBackEnd>(m_fsName, m_kind); }

private:
    CLI::App m_app;
    Action m_action; ///< of the verb that was given
    CLI::Option* m_fs;
    std::string m_fsName;
    int m_kind;
    bool m_json = false;
};

/// An option or argument that is text as it was typed. (The parser's own conversion takes "{}" for an empty
/// list.)
CLI::Option* addText(CLI::App* verb, const std::string& name, std::string& target, const std::string& help);
