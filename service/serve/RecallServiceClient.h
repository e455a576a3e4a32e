#pragma once

#include "platform/files/UniqueFd.h"

#include <ctime>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

/// "/run/qzhsm/8:1.sock" for instance.
std::string socketPath(const std::string& runtimeDirectory, dev_t device);

/// The other side: what a program of root's has to tell the services of a machine before it touches stubs.
/// Where none runs it does nothing. Services may come and go meanwhile: one makes its socket before the
/// kernel asks it about the first file. So who looks for sockets once it shows on a file that it becomes a
/// stub finds each service that may have taken the file for an ordinary one.
class RecallServiceClient {
public:
    /// Throws `Failure` if a service does not answer.
    explicit RecallServiceClient(std::string runtimeDirectory);

    /// Looks for services that have come since.
    void connectToNew();
    /// Whether there is none, dead or alive, of those that were found so far.
    bool isEmpty() const { return m_services.empty() && m_closed.empty() && m_dead.empty(); }
    /// This file, open in this process, is about to become a stub. Tells all that were found so far. Throws
    /// if one of them does not listen to this user, or the one of the file's file system has died.
    void heed(int file);

    /// What each service answers to "status" or "metrics". For callers that only ask.
    static std::vector<std::string> ask(const std::string& runtimeDirectory, const std::string& text);

private:
    struct Service {
        std::string socket;
        ino_t inode;
        timespec made; ///< a file system may give the number of an inode again
        UniqueFd connection;

        bool isStill(const struct stat& st) const;
    };

    std::string m_runtimeDirectory;
    std::vector<Service> m_services;
    std::string m_closed;            ///< the socket of one that does not listen to this user
    std::vector<std::string> m_dead; ///< the sockets of those that have died
};
