#pragma once

#include "service/Observer.h"
#include "tools/qzhsm/Progress.h"
#include "tools/qzhsm/Report.h"

#include <mutex>
#include <string>

/// Tells on standard error, and with --json on standard output, how work on many files goes. Used by all
/// workers together.
class ShownWork final : public Observer {
public:
    explicit ShownWork(Report& report) : m_report(report) {}

    void started(const std::string& name, long long size) override;
    void bytes(long long count) override;
    void done(const std::string& name, const std::string& what) override;
    void failed(const std::string& name, const Failure& failure) override;
    void skipped(const std::string& name, const std::string& reason) override;
    void note(const std::string& text) override;

    /// One line for all, if they are several: how many files are `done`, how many were left alone or failed,
    /// how many bytes.
    void summarise(const std::string& done);

private:
    std::mutex m_mutex;
    Report& m_report;
    Progress m_progress;
    long long m_bytes = 0;
    long long m_done = 0;
    long long m_skipped = 0;
    long long m_failed = 0;
};

/// Whether SIGINT, SIGTERM or SIGHUP came since the first call. From then on they cut a waiting read short,
/// and no longer end the process.
bool isInterrupted();
