#pragma once

#include "platform/files/UniqueFd.h"

#include <string>
#include <sys/un.h>
#include <vector>

/// Throws `Failure` for a path that no socket can have.
sockaddr_un socketAddress(const std::string& path);

/// Descriptors go with a message in numbers up to this.
constexpr size_t kFilesInMessage = 250;

constexpr const char* kDone = "done";    ///< an answer
constexpr size_t kShortMessage = 512;    ///< room for a request, "done" and the text of an errno
constexpr size_t kLongMessage = 1 << 20; ///< room for a status

/// Both return 0 or an errno. An empty text is the end; of one longer than `room` the rest is lost. EMFILE:
/// there was no room for all the descriptors.
int sendMessage(int socket, const std::string& text, const std::vector<int>& files);
int receiveMessage(int socket, std::string& text, std::vector<UniqueFd>& files, size_t room = kShortMessage);
