#include "service/ConfigCheck.h"
#include "service/Failure.h"
#include "tools/qzhsmd/Setup.h"
#include "tools/qzhsmd/Supervisor.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <filesystem>

namespace {

int run(int argc, char** argv) {
    CLI::App app("Recalls stubs when they are read", "qzhsmd");
    Serving serving;
    app.set_version_flag("--version", "qzhsmd " QZHSM_VERSION);
    app.add_option("DIR", serving.directories, "Directories whose file systems are served")
        ->required()
        ->option_text("...");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& call) {
        return app.exit(call);
    } catch (const CLI::ParseError& error) {
        tell(error.what());
        constexpr int kWrongUsage = 2;
        return kWrongUsage;
    }
    for (std::string& directory : serving.directories) // whoever asks for the status may stand elsewhere
        directory = std::filesystem::absolute(directory).lexically_normal();
    for (const std::string& warning : configWarnings())
        tell(warning);
    serving.rules = ServeRules::read();
    setUpService(serving);
    Supervisor(serving).run();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN); // that nobody reads what is logged must end no process
    try {
        return run(argc, argv);
    } catch (const Failure& failure) {
        tell(failure.what());
        if (!failure.advice().empty())
            tell(failure.advice());
    } catch (const std::exception& error) {
        tell(error.what());
    }
    return 1;
}
