#include "service/FileIo.h"
#include "service/Recall.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/Progress.h"
#include "tools/qzhsm/Verbs.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace {

volatile std::sig_atomic_t interrupted = 0;

/// While it lives, the signals that ask the tool to stop are noted, and cut a waiting read short.
class NoteSignals {
public:
    NoteSignals() {
        struct sigaction note {};
        note.sa_handler = [](int) { interrupted = 1; };
        for (auto& [signal, before] : m_signals) {
            ::sigaction(signal, nullptr, &before);
            if (before.sa_handler != SIG_IGN)
                ::sigaction(signal, &note, nullptr);
        }
    }
    NoteSignals(const NoteSignals&) = delete;
    NoteSignals& operator=(const NoteSignals&) = delete;
    ~NoteSignals() {
        for (const auto& [signal, before] : m_signals)
            ::sigaction(signal, &before, nullptr);
    }

private:
    std::pair<int, struct sigaction> m_signals[3] = {{SIGINT, {}}, {SIGTERM, {}}, {SIGHUP, {}}};
};

/// Shows a recall on the terminal.
class ShownRecall : public RecallObserver {
public:
    explicit ShownRecall(Report& report) : m_report(report) {}

    void bytes(long long done, long long total) override { m_progress.bytes(done, total); }
    void note(const std::string& text) override {
        m_progress.clear();
        m_report.note(text);
    }
    void failed(const Failure& failure) override {
        m_progress.clear();
        m_report.failure(failure);
    }
    bool isInterrupted() const override { return interrupted != 0; }

private:
    Report& m_report;
    Progress m_progress;
};

RecallSource openSource(const std::string& from) {
    if (from == "-")
        return {"standard input", UniqueFd(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)), false};
    return {from, openForReading(from), true};
}

} // namespace

void addRecallVerb(CommandLine& line) {
    struct Options {
        std::string from;
        bool force = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathVerb("recall", "Give a stub its data back", "PATH", "The stub",
                                      [options](StubKind& kind, Report& report, const std::string& path) {
                                          ShownRecall observer(report);
                                          Recall recall(kind, path, options->force, observer);
                                          const RecallSource source = openSource(options->from);
                                          const NoteSignals signals;
                                          recall.run(source);
                                      });
    addText(verb, "--from", options->from, "The file that holds the data, or - for standard input")
        ->option_text("FILE (required)")
        ->required();
    verb->add_flag("--force", options->force, "Also if the sizes are not what the stub records");
}
