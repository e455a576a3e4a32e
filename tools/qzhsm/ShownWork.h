#pragma once

#include "service/Observer.h"
#include "tools/qzhsm/Progress.h"
#include "tools/qzhsm/Report.h"

#include <mutex>
#include <string>
#include <unordered_map>

/// Tells on standard error how work on many files goes. With --json all that comes of it, and with
/// --null-output the names of the files that are done, are listed on standard output. Used by all workers
/// together.
///
/// A list that cannot be written does not end the work, which would be left half done: `summarise` throws
/// the `OutputFailure`.
class ShownWork final : public Observer {
public:
    explicit ShownWork(Report& report) : m_report(report) {}

    void started(const std::string& name, long long size) override;
    void bytes(long long count) override;
    void done(const std::string& name, const std::string& what) override;
    void failed(const std::string& name, const Failure& failure) override;
    void skipped(const std::string& name, const std::string& reason) override;
    void note(const std::string& text) override;
    void walking(const std::string& directory) override;

    /// One more is done, of which the verb itself has told.
    void counted();

    /// One line for all, if they are several: how many files are `done`, how many were left alone or failed,
    /// how many bytes; of one alone only if it was left alone, or `tellsOfOne`. Throws if a list could not be
    /// written.
    void summarise(const std::string& done, bool tellsOfOne = false);

private:
    template <class Write>
    void list(Write write);
    long long endOf(const std::string& name);
    void show();

    std::mutex m_mutex;
    Report& m_report;
    std::exception_ptr m_outputFailure;
    bool m_walked = false;
    long long m_bytes = 0;                                 ///< so far, of files that may fail, too
    long long m_begun = 0;                                 ///< the bytes of files that were begun
    std::unordered_map<std::string, long long> m_underWay; ///< those of each that has come to no end
    long long m_doneBytes = 0;
    long long m_done = 0;
    long long m_skipped = 0;
    std::string m_skippedLast;
    long long m_failed = 0;
};

/// Whether SIGINT, SIGTERM or SIGHUP came since the first call. From then on they cut a waiting read short,
/// and no longer end the process.
bool isInterrupted();
/// Throws if it was.
void requireUninterrupted();
