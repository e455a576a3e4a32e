#pragma once

#include "platform/files/UniqueFd.h"
#include "service/serve/RecallService.h"
#include "service/serve/RecallServiceClient.h"

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

// The sockets of the recall services of a machine, one for each served file system, in the runtime directory.
// Only root may connect. A request is a message of one word, an answer one message:
//
//     status   the service's status as JSON
//     metrics  the same for Prometheus
//     exempt   from now on, and as long as it is connected, the process is not held up; answered by "done"
//     heed     with descriptors: these files are about to become stubs; answered by "done",
//              or why it cannot be done

/// The service's side. Belongs to one thread.
class ControlSocket {
public:
    ControlSocket(RecallService& service, std::vector<std::string> directories);
    ~ControlSocket();

    /// A socket at that path, listening. Throws `Failure`.
    static UniqueFd listen(const std::string& path);

    void addListener(UniqueFd listener);
    /// One that a process which died had accepted. Whoever is behind it is not held up from now on: he may
    /// have asked for that.
    void takeOver(UniqueFd connection);

    /// Adds the descriptors to wait for.
    void addTo(std::vector<int>& fds) const;
    /// One of these is ready.
    void serve(int fd);

private:
    struct Connection {
        UniqueFd fd;
        pid_t process;
        bool exempt = false;
    };

    /// Null for one of somebody else than root.
    Connection* add(UniqueFd connection);
    void exempt(Connection& connection);
    void answer(Connection& connection);
    std::string answerTo(Connection& connection, std::string_view request,
                         const std::vector<UniqueFd>& files);

    RecallService& m_service;
    std::vector<std::string> m_directories;
    std::vector<UniqueFd> m_listeners;
    std::map<int, Connection> m_connections;
};
